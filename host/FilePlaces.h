// Where the file of a stored name lies below the store's folder.
#ifndef TANSY_HOST_FILE_PLACES_H
#define TANSY_HOST_FILE_PLACES_H

#include <string>

#include "StoredName.h"

namespace Tansy::Host {

// The folder of files that hold one small body each. Such bodies were moved here from a pool; the others are in the
// body log.
inline constexpr const char* kMovedBodies = "mb01";

// Gives "fs01/ab/cd". Names from a pool have no folder of their own; their files are spread over 256 folders.
std::string FileFolderOf(const StoredName& name);
// Gives "fs01/ab/cd/ID.d".
std::string FilePathOf(const StoredName& name);
// Does the reverse for a file of this id in "volume/ab/cd".
StoredName NameOfFile(const std::string& volume, const std::string& folder, const std::string& id);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FILE_PLACES_H
