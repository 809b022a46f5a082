#include "DataFolder.h"

#include <cerrno>

#include "HostSystem/Files.h"
#include "StartFailure.h"

namespace Tansy::Host {

CDataFolder::CDataFolder(const std::string& path, bool make) : path_(HostSystem::AbsolutePath(path)) {
  while (path_.size() > 1 && path_.back() == '/') {
    path_.pop_back();
  }
  const auto fail = [this](const std::string& what) {
    throw CStartFailure(kExitFailed, "data folder " + path_ + " " + what);
  };
  if (!make && HostSystem::GetPathKind(path_) == HostSystem::EPathKind::kMissing) {
    fail("does not exist");
  }
  if (const int error = HostSystem::MakeFolders(path_)) {
    fail("cannot be made: " + HostSystem::ErrorText(error));
  }
  const int error = lock_.Take(path_ + "/tansyd.lock");
  if (error == EBUSY) {
    fail("is in use by another tansyd");
  }
  if (error != 0) {
    fail("cannot be written: " + HostSystem::ErrorText(error));
  }
  if (const int change_error = HostSystem::ChangeFolder(path_)) {
    fail("cannot be entered: " + HostSystem::ErrorText(change_error));
  }
}

}  // namespace Tansy::Host
