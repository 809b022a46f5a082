// The copy of the catalogue in a backup.
#ifndef TANSY_HOST_BACKUP_CATALOGUE_H
#define TANSY_HOST_BACKUP_CATALOGUE_H

#include <set>
#include <string>

namespace Tansy::Host {

// These work on a file that nobody else uses, and throw CStartFailure with kExitFailed.

// Leaves finished objects, and uploads of the S3 protocol: the bytes of other uploads still change, and what was
// removed or replaced is not in the backup.
void KeepWhatLasts(const std::string& file);
// Forgets the objects whose bytes these are, and those that have them as a part.
void ForgetObjects(const std::string& file, const std::set<std::string>& urls);
// Gives the catalogue to another store.
void SetStoreId(const std::string& file, const std::string& id);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_BACKUP_CATALOGUE_H
