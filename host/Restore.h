#ifndef TANSY_HOST_RESTORE_H
#define TANSY_HOST_RESTORE_H

#include <iosfwd>
#include <string>

#include "Options.h"

namespace Tansy::Host {

// Makes a data folder from a backup, which `path` names itself or as the newest of its folder. The data folder of the
// options must be empty or missing, and so must the folder of the bytes when the option "storage" names one. The new
// store has an id of its own, so that its parts are never mixed up with those of the old one.
//
// Writes lines for people to `out`. Returns kExitDone, or kExitFindings when objects are not whole, as the backup was
// made. Throws CStartFailure when nothing was restored; `tansyd` does not start on what is there then.
int RestoreBackup(const std::string& path, const OptionTexts& texts, std::ostream& out);

// Throws CStartFailure when the current folder is one in which a restore has not come to its end.
void ExpectRestored();

}  // namespace Tansy::Host

#endif  // TANSY_HOST_RESTORE_H
