#include "TansyBase/FileUtil.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "TansyBase/posix/NativePath.h"

namespace TansyBase {

std::string FileUtil::GetCurExeDirUtf8() {
  return "./";
}

bool FileUtil::Exists(const std::string& path) {
  struct stat status {};
  return IsPlainPath(path) && stat(NativePath(path).c_str(), &status) == 0;
}

int FileUtil::MakeDirectory(const std::string& path) {
  if (!IsPlainPath(path)) {
    return ENOENT;
  }
  return mkdir(NativePath(path).c_str(), 0777) == 0 ? 0 : errno;
}

int FileUtil::RemoveFile(const std::string& path) {
  if (!IsPlainPath(path)) {
    return ENOENT;
  }
  return unlink(NativePath(path).c_str()) == 0 ? 0 : errno;
}

std::FILE* FileUtil::OpenFile(const std::string& path, const char* mode) {
  if (!IsPlainPath(path)) {
    errno = ENOENT;
    return nullptr;
  }
  return std::fopen(NativePath(path).c_str(), (std::string(mode) + "e").c_str());
}

}  // namespace TansyBase
