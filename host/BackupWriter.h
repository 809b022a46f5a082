#ifndef TANSY_HOST_BACKUP_WRITER_H
#define TANSY_HOST_BACKUP_WRITER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "BackupManifest.h"
#include "HostSystem/Files.h"

namespace Tansy::Host {

// Makes files below a folder, which are on stable storage with their digests known when the writer has ended. Threads:
// any, for different files. Errors: members throw CStartFailure with kExitFailed and a line that names the file; a full
// disk is called that.
class CBackupWriter {
 public:
  // `place` names the folder in messages.
  CBackupWriter(std::unique_ptr<HostSystem::IFolder> folder, std::string place)
      : folder_(std::move(folder)), place_(std::move(place)) {}

  // Gives the next bytes of a file; false at its end.
  using Source = std::function<bool(std::string_view& bytes)>;
  // Makes the file `path`, and the folders that lead to it.
  BackupFile Write(const std::string& path, const Source& source);
  BackupFile WriteText(const std::string& path, const std::string& text);
  // Reads back a file that somebody else has made here.
  BackupFile Adopt(const std::string& path);

  // Makes the folders that lead to a file.
  void MakeFoldersTo(const std::string& path);
  void Remove(const std::string& path);
  // Syncs the folders that were made.
  void SyncFolders();

 private:
  [[noreturn]] void Fail(const std::string& path, const char* what, int error) const;

  const std::unique_ptr<HostSystem::IFolder> folder_;
  const std::string place_;
  std::mutex mutex_;
  std::set<std::string> made_;  // guarded by mutex_
};

// Shows a file in pieces. Returns 0 or an errno value.
int ForEachPiece(HostSystem::IFile& file, const std::function<void(std::string_view bytes)>& visitor);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_BACKUP_WRITER_H
