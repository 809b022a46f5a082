#include "TansyBase/FileUtil.h"

#include <direct.h>
#include <io.h>
#include <windows.h>

#include <cerrno>
#include <cstdio>

#include "TansyBase/ProgramFolder.h"
#include "TansyBase/StringUtil.h"
#include "TansyBase/windows/NativePath.h"

namespace TansyBase {
namespace {

std::string ToUtf8(const std::wstring& wide) {
  const int length = static_cast<int>(wide.size());
  const int size = WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, utf8.data(), size, nullptr, nullptr);
  return utf8;
}

}  // namespace

std::string ProgramFolder() {
  std::wstring path(32768, L'\0');  // the longest path that the system knows
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return ToUtf8(path.substr(0, path.find_last_of(L'\\') + 1));
}

bool FileUtil::Exists(const std::string& path) {
  return GetFileAttributesW(NativePath(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

int FileUtil::MakeDirectory(const std::string& path) {
  return _wmkdir(NativePath(path).c_str()) == 0 ? 0 : errno;
}

// The system keeps names in a journal of its own and cannot be asked to wait for it.
int FileUtil::EnsureDirectory(const std::string& path) {
  const int error = MakeDirectory(path);
  return error == EEXIST ? 0 : error;
}

int FileUtil::RemoveFile(const std::string& path) {
  return _wunlink(NativePath(path).c_str()) == 0 ? 0 : errno;
}

int FileUtil::EnsureRemoved(const std::string& path) {
  const int error = RemoveFile(path);
  return error == ENOENT ? 0 : error;
}

int FileUtil::MoveOver(const std::string& from, const std::string& to) {
  const BOOL moved =
      MoveFileExW(NativePath(from).c_str(), NativePath(to).c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
  if (moved) {
    return 0;
  }
  switch (GetLastError()) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
      return ENOENT;
    case ERROR_DISK_FULL:
      return ENOSPC;
    default:
      return EACCES;
  }
}

int FileUtil::Flush(std::FILE* file) {
  return std::fflush(file) == 0 && _commit(_fileno(file)) == 0 ? 0 : errno;
}

std::FILE* FileUtil::OpenFile(const std::string& path, const char* mode) {
  return _wfopen(NativePath(path).c_str(), StringUtil::UTF8ToWide(std::string(mode) + "N").c_str());
}

}  // namespace TansyBase
