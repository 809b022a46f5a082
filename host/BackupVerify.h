#ifndef TANSY_HOST_BACKUP_VERIFY_H
#define TANSY_HOST_BACKUP_VERIFY_H

#include <iosfwd>
#include <string>

namespace Tansy::Host {

// Reads all of a backup, which `path` names itself or as the newest of its folder, and compares it with its manifest;
// then looks whether each row has its bytes. Lists what is wrong. Returns kExitDone or kExitFindings. Throws
// CStartFailure when there is no whole manifest to compare with.
int VerifyBackup(const std::string& path, std::ostream& out);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_BACKUP_VERIFY_H
