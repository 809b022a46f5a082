#ifndef TANSY_HOST_BACKUP_BYTES_H
#define TANSY_HOST_BACKUP_BYTES_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BackupFolder.h"
#include "BackupManifest.h"
#include "BackupNames.h"
#include "BackupWriter.h"
#include "BodyLog.h"
#include "ObjectStore.h"

namespace Tansy::Host {

// The backup before, whose files are linked. Nothing changes a file of a backup, and stored bytes of one name are
// always the same.
struct EarlierBackup {
  std::string name;  // empty: there is none
  BackupManifest manifest;
  std::unique_ptr<HostSystem::IFolder> objects;  // null: it has no bytes
  std::unique_ptr<CBodyLog> bodies;              // in that folder
};

// Brings the stored bytes of names into a backup. Threads: one; it starts others. Errors: members throw CStartFailure
// with kExitFailed when the backup cannot be written.
class CBackupBytes {
 public:
  // All of them must outlive this object.
  CBackupBytes(IObjectStore& store, CBackupFolder& folder, CBackupWriter& writer, const EarlierBackup& earlier)
      : store_(store), folder_(folder), writer_(writer), earlier_(earlier) {}

  void Take(const BackupNames& names);

  // What was taken, and the urls of what could not be: "missing", "damaged" or "short".
  const std::vector<BackupFile>& Files() const { return files_; }
  const std::map<std::string, std::string>& Findings() const { return findings_; }
  std::uint64_t CopiedBytes() const { return copied_bytes_; }
  std::uint64_t LinkedFiles() const { return linked_files_; }

 private:
  bool Link(const std::string& path, std::uint32_t least);
  void TakeFile(const PackedStoredName& packed);
  void CopyFile(const StoredName& name, const std::string& path, std::uint32_t least);
  void TakeSegment(const SegmentBodies& bodies);
  bool IsInEarlier(const SegmentBodies& bodies, const std::string& path) const;
  std::string ContentOf(const SegmentBodies& bodies);
  void NoteFinding(const StoredName& name, const char* what);
  void NoteFile(BackupFile file);

  IObjectStore& store_;
  CBackupFolder& folder_;
  CBackupWriter& writer_;
  const EarlierBackup& earlier_;

  std::mutex mutex_;  // guards what follows
  std::vector<BackupFile> files_;
  std::map<std::string, std::string> findings_;
  std::uint64_t copied_bytes_ = 0;
  std::uint64_t linked_files_ = 0;
};

// Calls work(0), work(1) ... on a few threads, and throws what one of them has thrown.
void InParallel(std::size_t count, const std::function<void(std::size_t)>& work);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_BACKUP_BYTES_H
