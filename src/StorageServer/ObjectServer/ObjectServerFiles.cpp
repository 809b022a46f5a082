#include "StorageServer/ObjectServer/ObjectServerFiles.h"

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <set>

#include "ModuleLog.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::CloudStorage::details {

namespace {

using TansyBase::FileUtil;

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePointer = std::unique_ptr<std::FILE, FileCloser>;

// The folders whose names this process has seen on stable storage.
struct DurableFolders {
  std::mutex mutex;
  std::set<std::string> paths;
};
DurableFolders& TheDurableFolders() {
  static DurableFolders folders;
  return folders;
}

// Returns 0 also when somebody else made the folder meanwhile, or made it earlier and ended before it was durable. Who
// finds a folder that another thread is still making durable waits for that.
int MakeFolder(const std::string& path) {
  DurableFolders& durable = TheDurableFolders();
  const std::lock_guard lock(durable.mutex);
  if (durable.paths.count(path) > 0 && FileUtil::Exists(path)) {
    return 0;
  }
  const int error = FileUtil::EnsureDirectory(path);
  if (error == 0) {
    durable.paths.insert(path);
  }
  return error;
}

}  // namespace

bool CreateFloder(const std::string& path) {
  for (std::size_t i = path.find_first_of("/\\"); i != std::string::npos; i = path.find_first_of("/\\", i + 1)) {
    const std::string prefix = path.substr(0, i);
    if (const int error = MakeFolder(prefix); error != 0) {
      CLOUD_LOG(logging::kError, "[%s]CreateFloder failed[%s], full path[%s], index[%d], error[%d].[%s(%d)]",
                prefix.c_str(), path.c_str(), static_cast<int>(i), error);
      return false;
    }
  }
  return true;
}

bool SaveFile(const std::string& path, const char* data, std::size_t length, const char* mode) {
  if (!CreateFloder(path)) {
    return false;
  }
  FilePointer file(FileUtil::OpenFile(path, mode));
  if (!file) {
    CLOUD_LOG(logging::kError, "[%s]create file failed[%s], error[%d].[%s(%d)]", path.c_str(), errno);
    return false;
  }
  // Closing is checked too, because a full disk may show only when the buffered rest is written.
  int error = std::fwrite(data, 1, length, file.get()) == length ? FileUtil::Flush(file.get()) : errno;
  if (std::fclose(file.release()) != 0 && error == 0) {
    error = errno;
  }
  if (error != 0) {
    CLOUD_LOG(logging::kError, "[%s]write file failed[%s], error[%d].[%s(%d)]", path.c_str(), error);
    return false;
  }
  return true;
}

bool ReplaceFile(const std::string& path, const char* data, std::size_t length) {
  const std::string fresh = path + ".new";
  if (!SaveFile(fresh, data, length, "wb")) {
    FileUtil::RemoveFile(fresh);
    return false;
  }
  if (const int error = FileUtil::MoveOver(fresh, path); error != 0) {
    CLOUD_LOG(logging::kError, "[%s]write file failed[%s], error[%d].[%s(%d)]", path.c_str(), error);
    FileUtil::RemoveFile(fresh);
    return false;
  }
  return true;
}

std::unique_ptr<char[]> ReadFile(const std::string& path, std::size_t length) {
  const FilePointer file(FileUtil::OpenFile(path, "rb"));
  if (!file || length == 0) {
    return nullptr;
  }
  auto data = std::make_unique_for_overwrite<char[]>(length + 1);
  if (std::fread(data.get(), 1, length, file.get()) != length) {
    return nullptr;
  }
  data[length] = '\0';
  return data;
}

}  // namespace Tansy::CloudStorage::details
