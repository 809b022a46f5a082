#ifndef TANSY_HOST_BACKUP_H
#define TANSY_HOST_BACKUP_H

#include <iosfwd>
#include <string>

#include "DataFolder.h"
#include "Options.h"

namespace Tansy::Host {

struct BackupOrder {
  std::string folder;         // absolute
  bool all_anew = false;      // nothing is taken over from the backup before
  bool even_damaged = false;  // although the bytes of some objects cannot be read
};

// Makes a backup of the data folder, which is the current one, also beside a tansyd that serves it: what it served at
// one instant, which lies between the begin and the end of this call. An object that is being removed just then may be
// missing. What the newest backup in the folder has already is linked, not copied.
//
// Writes lines for people to `out`. Returns kExitDone, or kExitFindings when some objects are not whole in it. Throws
// CStartFailure when no backup was made; nothing is left of it then. That is so too when the server would not see that
// a backup is being made: it has another data folder, or another user's lock in this one.
int MakeBackup(const BackupOrder& order, const HostOptions& options, const CDataFolder& data,
               const std::string& settings_path, std::ostream& out);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_BACKUP_H
