#ifndef TANSY_HOST_BACKUP_NAMES_H
#define TANSY_HOST_BACKUP_NAMES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "BodyLogFormat.h"
#include "StoredName.h"

namespace Tansy::Host {

// A stored name without separators, in little memory: a catalogue holds millions.
struct PackedStoredName {
  std::array<char, 40> text{};  // volume, folder, id
  std::uint32_t size = 0;       // what a row says; low 32 bits

  bool operator<(const PackedStoredName& other) const { return text < other.text; }
};

PackedStoredName PackName(const StoredName& name, std::uint32_t size);
StoredName UnpackName(const PackedStoredName& packed);

// The small bodies that lie in one segment of a backup, in the order of their keys.
struct SegmentBodies {
  std::uint32_t segment = 0;
  std::uint64_t nonce = 0;
  std::vector<PackedStoredName> names;
};

// What a backup stores: files of their own, and segments of small bodies.
struct BackupNames {
  std::vector<PackedStoredName> files;
  std::vector<SegmentBodies> segments;
};

// Sorts names and takes each once. A number that several segments had, because bodies were moved here from another
// folder, is that of one segment; the other bodies are files.
BackupNames SortNames(std::vector<PackedStoredName> names);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_BACKUP_NAMES_H
