#include "db_layer/FolderSync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace db_layer {

bool SyncFolderOf(const std::string& file_path) {
  const auto slash = file_path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : file_path.substr(0, slash);
  const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) {
    return false;
  }
  int result = 0;
  do {
    result = fsync(descriptor);
  } while (result != 0 && errno == EINTR);
  // Some file systems cannot sync a folder and answer EINVAL; nothing more can be done on them.
  const bool synced = result == 0 || errno == EINVAL;
  close(descriptor);
  return synced;
}

}  // namespace db_layer
