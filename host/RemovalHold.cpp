#include "RemovalHold.h"

#include <cerrno>
#include <mutex>
#include <string>

#include "Catalogue.h"
#include "HostLog.h"
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

// Whoever asks has the lock for a moment, so two who ask at one time would each see the other. A lock that cannot be
// looked at counts as held: bytes that stay too long can still be freed, and others are gone for ever.
bool AreRemovalsHeld() {
  static std::mutex mutex;
  static int last_error = 0;
  const std::lock_guard lock(mutex);
  bool is_taken = false;
  const int error = HostSystem::CLockFile::Look(details::kLockFile, is_taken);
  if (error != 0 && error != last_error) {
    HOST_LOG(logging::kError,
             "[%s]no bytes are freed, because %s cannot be read: %s; remove it when no backup is being made.[%s(%d)]",
             details::kLockFile, HostSystem::ErrorText(error).c_str());
  }
  last_error = error;
  return is_taken || error != 0;
}

bool FreeWhenReleased(const StoredName& name) {
  return NoteReleased(LocationText(name));
}

}  // namespace Tansy::Host
