// Locks for what only one tansyd may use at a time, besides the data folder.
#ifndef TANSY_HOST_LOCKS_H
#define TANSY_HOST_LOCKS_H

#include <string>

#include "HostSystem/LockFile.h"

namespace Tansy::Host {

// These throw CStartFailure with kExitFailed when another tansyd has the lock or the lock's file cannot be written.
void LockDatabase(const std::string& file, HostSystem::CLockFile& lock);
// ExpectStorageFree only looks and writes nothing. Neither function does anything for the current folder, because that
// is the data folder, which is locked already.
void ExpectStorageFree(const std::string& folder);
void LockStorage(const std::string& folder, HostSystem::CLockFile& lock);
// Keeps away those that want the folder alone.
void ShareStorage(const std::string& folder, HostSystem::CLockFile& lock);

// Says whether a tansyd with this or another data folder is using the storage folder.
bool IsStorageInUse(const std::string& folder);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_LOCKS_H
