// The folder that backups of one store are kept in: a folder for each, called by the time it was begun. One that is not
// whole has another name, so nobody takes it for a backup.
//
//   2026-11-03T08-05-09.123Z/MANIFEST   what is in it, written last
//   2026-11-03T08-05-09.123Z/data/...   a data folder as tansyd keeps it
//   2026-11-04T08-05-07.456Z.unfinished/
#ifndef TANSY_HOST_BACKUP_FOLDER_H
#define TANSY_HOST_BACKUP_FOLDER_H

#include <memory>
#include <string>
#include <vector>

#include "BackupManifest.h"
#include "HostSystem/Files.h"
#include "HostSystem/LockFile.h"

namespace Tansy::Host {

inline constexpr const char* kBackupData = "data";

// One thread uses it. Errors: members throw CStartFailure with kExitFailed, unless they return an errno value.
class CBackupFolder {
 public:
  // `path` is made when it is missing, and locked against other backups.
  explicit CBackupFolder(const std::string& path);

  // Removes what backups that did not end have left. Returns how many there were.
  int RemoveUnfinished();
  // The newest backup and what it holds; "" when there is none.
  std::string FindNewest(BackupManifest& manifest) const;

  // Begins a backup. Its name is that of a folder below this one, until it is finished.
  void Begin();
  const std::string& GetName() const { return name_; }
  // Writes the manifest, when everything else is on stable storage, and gives the backup its name for good.
  void Finish(const BackupManifest& manifest);
  // Removes what was begun.
  void GiveUp();

  HostSystem::IFolder& Root() const { return *root_; }
  const std::string& GetPath() const { return path_; }

 private:
  void Remove(const std::string& name) const;

  const std::string path_;
  std::unique_ptr<HostSystem::IFolder> root_;
  HostSystem::CLockFile lock_;
  std::string name_;
};

// Gives the path of the backup that `path` means: that of one, or the newest in a folder of them. Reads its manifest.
// Throws CStartFailure with kExitFailed when there is none that is whole.
std::string FindBackup(const std::string& path, BackupManifest& manifest);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_BACKUP_FOLDER_H
