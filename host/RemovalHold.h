// While a backup is being made, no bytes of objects go: it reads what rows named at one instant, and some of these
// objects are replaced or removed meanwhile. Whoever makes the backup holds a lock in the data folder, which is the
// current folder of both processes. The system releases it when that process ends, however it ends.
#ifndef TANSY_HOST_REMOVAL_HOLD_H
#define TANSY_HOST_REMOVAL_HOLD_H

#include "HostSystem/LockFile.h"
#include "StoredName.h"

namespace Tansy::Host {

// Holds removals back as long as it lives. The constructor throws CStartFailure when another backup is being made.
class CRemovalHold {
 public:
  CRemovalHold();
  ~CRemovalHold();
  CRemovalHold(const CRemovalHold&) = delete;
  CRemovalHold& operator=(const CRemovalHold&) = delete;

 private:
  HostSystem::CLockFile lock_;
};

// Says whether bytes must stay, also when that cannot be found out. Threads: any.
bool AreRemovalsHeld();

// Has housekeeping free these bytes of an object when removals are held no longer. Returns false when the catalogue
// does not take the note; the log says why.
bool FreeWhenReleased(const StoredName& name);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_REMOVAL_HOLD_H
