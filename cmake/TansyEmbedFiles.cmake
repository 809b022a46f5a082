# Writes the files of a folder, and of the folders in it, into a C++ source. Run with:
#   cmake -DFOLDER=... -DFUNCTION=... -DOUTPUT=... -P this file
# Each file is there as it is and, where that is smaller, packed by gzip.
set(packed "${OUTPUT}.gz")

# bytes_of(<result> <hexadecimal digits>): the same as the body of an array
function(bytes_of result digits)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${digits}")
  set(${result} "${bytes}" PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE names LIST_DIRECTORIES FALSE RELATIVE "${FOLDER}" "${FOLDER}/*")
list(SORT names)
if(NOT names)
  message(FATAL_ERROR "${FOLDER} has no files to embed")
endif()
set(arrays "")
set(rows "")
set(number 0)
foreach(name IN LISTS names)
  if(NOT name MATCHES "^[A-Za-z0-9._/-]+$")
    message(FATAL_ERROR "${name}: names of embedded files are made of letters, digits, '.', '_', '-' and '/'")
  endif()
  math(EXPR number "${number} + 1")
  file(READ "${FOLDER}/${name}" plain HEX)
  file(REMOVE "${packed}")
  file(ARCHIVE_CREATE OUTPUT "${packed}" PATHS "${FOLDER}/${name}" FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9)
  file(READ "${packed}" gzip HEX)
  string(LENGTH "${plain}" plain_size)
  string(LENGTH "${gzip}" gzip_size)
  math(EXPR plain_size "${plain_size} / 2")
  math(EXPR gzip_size "${gzip_size} / 2")
  # The time in the head of the packed file would make each build another one.
  string(SUBSTRING "${gzip}" 0 8 gzip_begin)
  string(SUBSTRING "${gzip}" 16 -1 gzip_rest)
  set(gzip "${gzip_begin}00000000${gzip_rest}")
  if(NOT gzip_size LESS plain_size)
    set(gzip "00")
    set(gzip_size 0)
  endif()
  # The last byte is no part of the file: an array cannot be empty.
  bytes_of(plain_bytes "${plain}00")
  bytes_of(gzip_bytes "${gzip}")
  string(APPEND arrays "constexpr unsigned char kPlain${number}[] = {${plain_bytes}};\n"
         "constexpr unsigned char kGzip${number}[] = {${gzip_bytes}};\n")
  string(APPEND rows "      {\"${name}\", Text(kPlain${number}, ${plain_size}), Text(kGzip${number}, ${gzip_size})},\n")
endforeach()
file(REMOVE "${packed}")
file(WRITE "${OUTPUT}" "#include \"EmbeddedFile.h\"

namespace Tansy::Host {
namespace {

${arrays}
std::string_view Text(const unsigned char* bytes, std::size_t size) {
  return {reinterpret_cast<const char*>(bytes), size};
}

}  // namespace

const std::vector<EmbeddedFile>& ${FUNCTION}() {
  static const std::vector<EmbeddedFile> files = {
${rows}  };
  return files;
}

}  // namespace Tansy::Host
")
