#ifndef TANSY_HOST_DATA_FOLDER_H
#define TANSY_HOST_DATA_FOLDER_H

#include <string>

#include "HostSystem/LockFile.h"

namespace Tansy::Host {

// The folder that holds everything, taken for this process: made when missing, locked, and made the current folder, so
// that relative paths lead into it from then on.
class CDataFolder {
 public:
  // Throws CStartFailure with kExitFailed: the folder cannot be made or used, another tansyd has it, or it is missing
  // and `make` is false.
  CDataFolder(const std::string& path, bool make);

  const std::string& GetPath() const { return path_; }  // absolute

 private:
  std::string path_;
  HostSystem::CLockFile lock_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_DATA_FOLDER_H
