#include <windows.h>

#include "TansyBase/FileUtil.h"
#include "TansyBase/StringUtil.h"

namespace TansyBase {
namespace {

HANDLE Handle(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

}  // namespace

// INVALID_HANDLE_VALUE is -1, and kInvalid is too, so calls on a file that is not open fail by themselves.

std::uint32_t CLocalFile::OpenAlways(const std::string& utf8_path) {
  Close();
  if (utf8_path.find('\0') != std::string::npos) {
    return ERROR_INVALID_NAME;  // the system would open the file that is named by what stands before it
  }
  const HANDLE handle = CreateFileW(StringUtil::UTF8ToWide(utf8_path).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    return GetLastError();
  }
  handle_ = reinterpret_cast<std::intptr_t>(handle);
  return 0;
}

std::uint32_t CLocalFile::GetSize(std::uint32_t& low_size, std::uint32_t* high_size) const {
  LARGE_INTEGER size{};
  if (!GetFileSizeEx(Handle(handle_), &size)) {
    return GetLastError();
  }
  low_size = size.LowPart;
  if (high_size != nullptr) {
    *high_size = static_cast<std::uint32_t>(size.HighPart);
  }
  return 0;
}

std::uint32_t CLocalFile::Read(void* buffer, std::uint32_t size, std::uint32_t& done) {
  DWORD count = 0;
  const BOOL succeeded = ReadFile(Handle(handle_), buffer, size, &count, nullptr);
  done = count;
  return succeeded ? 0 : GetLastError();
}

std::uint32_t CLocalFile::Write(const void* data, std::uint32_t size, std::uint32_t& done) {
  DWORD count = 0;
  const BOOL succeeded = WriteFile(Handle(handle_), data, size, &count, nullptr);
  done = count;
  return succeeded ? 0 : GetLastError();
}

void CLocalFile::Close() {
  if (IsOpen()) {
    CloseHandle(Handle(handle_));
    handle_ = kInvalid;
  }
}

}  // namespace TansyBase
