// The copy of the catalogue in a backup.
#ifndef TANSY_HOST_BACKUP_CATALOGUE_H
#define TANSY_HOST_BACKUP_CATALOGUE_H

#include <set>
#include <string>

#include "db_layer/Connect.h"

namespace Tansy::Host {

// All of these throw CStartFailure with kExitFailed.

// Gives the id of the store that a catalogue belongs to, "" when it has none yet. Throws also when a move has begun:
// the catalogue is then about to be another one.
std::string ReadStoreId(const db_layer::DBParam& database);

// Gives those of the urls, which the live catalogue names no longer, whose objects in the copy `file` are still there
// with other bytes.
std::set<std::string> FindReplaced(const std::string& file, const db_layer::DBParam& live,
                                   const std::set<std::string>& urls);

// The others work on a file that nobody else uses.

// Leaves finished objects, and uploads of the S3 protocol: the bytes of other uploads still change, and what was
// removed or replaced is not in the backup.
void KeepWhatLasts(const std::string& file);
// Forgets the objects whose bytes these are, and those that have them as a part.
void ForgetObjects(const std::string& file, const std::set<std::string>& urls);
// Gives the catalogue to another store.
void SetStoreId(const std::string& file, const std::string& id);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_BACKUP_CATALOGUE_H
