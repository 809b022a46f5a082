#include "TansyBase/FileUtil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "TansyBase/ProgramFolder.h"
#include "TansyBase/posix/NativePath.h"

namespace TansyBase {
namespace {

int Sync(int descriptor) {
  while (fsync(descriptor) != 0) {
    if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

int SyncFolderOf(const std::string& native_path) {
  const auto slash = native_path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : native_path.substr(0, slash + 1);
  const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) {
    return errno;
  }
  const int error = Sync(descriptor);
  close(descriptor);
  return error == EINVAL ? 0 : error;  // EINVAL: the file system cannot sync folders
}

}  // namespace

std::string ProgramFolder() {
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

int FileUtil::EnsureDirectory(const std::string& path) {
  const int error = MakeDirectory(path);
  return error == 0 || error == EEXIST ? SyncFolderOf(NativePath(path)) : error;
}

int FileUtil::RemoveFile(const std::string& path) {
  if (!IsPlainPath(path)) {
    return ENOENT;
  }
  return unlink(NativePath(path).c_str()) == 0 ? 0 : errno;
}

int FileUtil::EnsureRemoved(const std::string& path) {
  const int error = RemoveFile(path);
  if (error == ENOENT) {
    return 0;
  }
  return error == 0 ? SyncFolderOf(NativePath(path)) : error;
}

int FileUtil::MoveOver(const std::string& from, const std::string& to) {
  if (!IsPlainPath(from) || !IsPlainPath(to)) {
    return ENOENT;
  }
  const std::string native_to = NativePath(to);
  return std::rename(NativePath(from).c_str(), native_to.c_str()) == 0 ? SyncFolderOf(native_to) : errno;
}

int FileUtil::Flush(std::FILE* file) {
  return std::fflush(file) == 0 ? Sync(fileno(file)) : errno;
}

std::FILE* FileUtil::OpenFile(const std::string& path, const char* mode) {
  if (!IsPlainPath(path)) {
    errno = ENOENT;
    return nullptr;
  }
  return std::fopen(NativePath(path).c_str(), (std::string(mode) + "e").c_str());
}

}  // namespace TansyBase
