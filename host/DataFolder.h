#ifndef TANSY_HOST_DATA_FOLDER_H
#define TANSY_HOST_DATA_FOLDER_H

#include <string>

#include "HostSystem/LockFile.h"

namespace Tansy::Host {

// The folder that holds everything. It is made the current folder, so that relative paths lead into it from then on,
// and the one in which the servers look for their certificate and keep first parts.
class CDataFolder {
 public:
  enum class EUse {
    kServe,  // the folder is made when it is missing, and locked for this process
    kLook,   // nothing is made or locked
  };

  // Throws CStartFailure with kExitFailed when the folder cannot be made or used, when another tansyd has it, or when
  // it is missing and must not be made.
  CDataFolder(const std::string& path, EUse use);

  // Locks a folder that was only to be looked at. Throws like the constructor.
  void Lock();
  // Says whether another process has locked the folder.
  bool IsInUse() const;

  const std::string& GetPath() const { return path_; }  // an absolute path

 private:
  [[noreturn]] void Fail(const std::string& what) const;

  std::string path_;
  HostSystem::CLockFile lock_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_DATA_FOLDER_H
