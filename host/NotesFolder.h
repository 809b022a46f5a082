#ifndef TANSY_HOST_NOTES_FOLDER_H
#define TANSY_HOST_NOTES_FOLDER_H

#include <memory>
#include <vector>

#include "HostSystem/Files.h"
#include "StoredName.h"

namespace Tansy::Host {

// Where a process that shares its storage with others, or has none of its own, notes the names of bytes that no row is
// known to name yet: "new-bytes" below the data folder, which is the current folder. Makes it when it is missing.
// Throws CStartFailure with kExitFailed.
std::unique_ptr<HostSystem::IFolder> OpenNotesFolder();

// Reads the names in the notes of another process on this data folder; there may be none. Returns false when they
// cannot be read.
bool ReadNotesFolder(std::vector<StoredName>& names);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_NOTES_FOLDER_H
