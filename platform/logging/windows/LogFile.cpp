#include "logging/LogFile.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cerrno>
#include <filesystem>

namespace logging::details {
namespace {

int ErrnoOf(DWORD error) {
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
      return ENOENT;
    case ERROR_DISK_FULL:
      return ENOSPC;
    default:
      return EACCES;
  }
}

}  // namespace

// Others may rename or remove the file while it is written, as is done with logs that have grown long.
std::FILE* OpenForAppending(const std::string& path) {
  const std::filesystem::path file(std::u8string(path.begin(), path.end()));
  const HANDLE handle = ::CreateFileW(file.c_str(), FILE_APPEND_DATA | SYNCHRONIZE | FILE_READ_ATTRIBUTES,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    errno = ErrnoOf(::GetLastError());
    return nullptr;
  }
  const int descriptor =
      ::_open_osfhandle(reinterpret_cast<std::intptr_t>(handle), _O_APPEND | _O_BINARY | _O_NOINHERIT);
  if (descriptor < 0) {
    ::CloseHandle(handle);
    return nullptr;
  }
  std::FILE* const stream = ::_fdopen(descriptor, "ab");
  if (stream == nullptr) {
    ::_close(descriptor);
  }
  return stream;
}

}  // namespace logging::details
