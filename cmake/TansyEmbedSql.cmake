# Writes numbered SQL scripts into a C++ source. Run with: cmake -DFOLDER=... -DFUNCTION=... -DOUTPUT=... -P this file
file(GLOB scripts RELATIVE "${FOLDER}" "${FOLDER}/*.sql")
list(SORT scripts)
set(rows "")
foreach(script IN LISTS scripts)
  if(NOT script MATCHES "^([0-9]+)-")
    message(FATAL_ERROR "${script}: schema scripts are named NUMBER-name.sql")
  endif()
  string(REGEX REPLACE "^0+" "" version "${CMAKE_MATCH_1}")
  file(READ "${FOLDER}/${script}" text)
  string(APPEND rows "    {${version}, \"${script}\", R\"tansy_sql(${text})tansy_sql\"},\n")
endforeach()
file(WRITE "${OUTPUT}" "#include \"Schema.h\"

namespace Tansy::Host {

const std::vector<SchemaScript>& ${FUNCTION}() {
  static const std::vector<SchemaScript> scripts = {
${rows}  };
  return scripts;
}

}  // namespace Tansy::Host
")
