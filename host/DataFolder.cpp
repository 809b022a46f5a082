#include "DataFolder.h"

#include <cerrno>

#include "HostSystem/Files.h"
#include "StartFailure.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kLockFile = "/tansyd.lock";

}  // namespace
}  // namespace details

CDataFolder::CDataFolder(const std::string& path, EUse use) : path_(HostSystem::AbsolutePath(path)) {
  while (path_.size() > 1 && path_.back() == '/') {
    path_.pop_back();
  }
  if (use == EUse::kLook) {
    if (HostSystem::GetPathKind(path_) == HostSystem::EPathKind::kMissing) {
      Fail("does not exist");
    }
  } else {
    if (const int error = HostSystem::MakeFolders(path_)) {
      Fail("cannot be made: " + HostSystem::ErrorText(error));
    }
    Lock();
  }
  if (const int error = HostSystem::ChangeFolder(path_)) {
    Fail("cannot be entered: " + HostSystem::ErrorText(error));
  }
  // The servers keep files beside the program otherwise: one folder for all data folders, and perhaps one that only
  // administrators may write.
  TansyBase::FileUtil::SetCurExeDirUtf8("./");
}

void CDataFolder::Lock() {
  const int error = lock_.Take(path_ + details::kLockFile);
  if (error == EBUSY) {
    Fail("is in use by another tansyd");
  }
  if (error != 0) {
    Fail("cannot be written: " + HostSystem::ErrorText(error));
  }
}

bool CDataFolder::IsInUse() const {
  return !lock_.IsTaken() && HostSystem::CLockFile::IsTakenByAnybody(path_ + details::kLockFile);
}

void CDataFolder::Fail(const std::string& what) const {
  throw CStartFailure(kExitFailed, "data folder " + path_ + " " + what);
}

}  // namespace Tansy::Host
