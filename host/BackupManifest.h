#ifndef TANSY_HOST_BACKUP_MANIFEST_H
#define TANSY_HOST_BACKUP_MANIFEST_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "FileDigest.h"

namespace Tansy::Host {

struct BackupFile {
  std::string path;  // below the backup's folder of data
  std::uint64_t size = 0;
  Digest digest{};
};

// What a backup holds. It is written last, so a backup that has one was made to its end.
struct BackupManifest {
  std::string made;      // UTC, "2026-11-03 08:05:09"
  std::string version;   // of the tansyd that made it
  std::string store_id;  // of the store that was backed up
  long long schema = 0;  // version of the catalogue
  std::uint64_t objects = 0;
  std::uint64_t pictures = 0;
  std::vector<BackupFile> files;  // in the order of their paths
};

// One line per file, then a line that counts them and carries the digest of all lines before it.
std::string TextOf(const BackupManifest& manifest);
// Returns false for a text that is not whole, or no manifest that this version knows.
bool ParseManifest(std::string_view text, BackupManifest& manifest);

// Null when there is none. The files must be in the order of their paths.
const BackupFile* FindFile(const BackupManifest& manifest, const std::string& path);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_BACKUP_MANIFEST_H
