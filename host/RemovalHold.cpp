#include "RemovalHold.h"

#include <cerrno>
#include <mutex>
#include <string>

#include "Catalogue.h"
#include "HostSystem/Files.h"
#include "StartFailure.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kLockFile = "backup.lock";

}  // namespace
}  // namespace details

CRemovalHold::CRemovalHold() {
  if (const int error = lock_.Take(details::kLockFile)) {
    throw CStartFailure(kExitFailed, error == EBUSY ? "another backup of this data folder is being made"
                                                    : std::string(details::kLockFile) +
                                                          " cannot be written: " + HostSystem::ErrorText(error));
  }
}

CRemovalHold::~CRemovalHold() {
  TansyBase::FileUtil::RemoveFile(details::kLockFile);
}

// Whoever asks has the lock for a moment, so two who ask at one time would each see the other.
bool AreRemovalsHeld() {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  return HostSystem::CLockFile::IsTakenByAnybody(details::kLockFile);
}

bool FreeWhenReleased(const StoredName& name) {
  return NoteReleased(LocationText(name));
}

}  // namespace Tansy::Host
