// What may be on a disk when the power fails in the middle of a trace.
//
// Everything is there that was synced: bytes and size of a file by a sync of the file, names by a sync of the folder
// that holds them. Of what came since then, any part may be there, in any order:
//
// - Each 4 KiB page of a file holds what it held at any moment since its last sync, now and then with a tear at a
//   multiple of 512 bytes. Its size is one of the sizes that the file has had since then. Bytes that were never written
//   are zeros, or, on some disks, anything. When a file was cut off, all of it is from before that, or nothing is.
// - Each change of a folder (a new name, a new name for an old one, a name that is taken away) is there or is not.
//
// A sync that failed has made nothing durable, and no later sync makes up for it: only pages that are written again
// and then synced are.
#ifndef TANSY_TESTS_PROVE_POWER_DISK_H
#define TANSY_TESTS_PROVE_POWER_DISK_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Trace.h"

namespace prove {

// How a cut treats what was not synced.
enum class ECut {
  kAllLost,
  kAllKept,  // like the end of the process alone
  kInOrder,  // all up to some earlier moment is kept and nothing behind it
  kByFile,   // of some files and folders all is kept, of the others nothing
  kByPage,   // each page, size and name for itself
};
const char* TextOf(ECut cut);

class CDisk {
 public:
  explicit CDisk(const CTrace& trace);
  ~CDisk();
  CDisk(const CDisk&) = delete;
  CDisk& operator=(const CDisk&) = delete;

  // Goes on in the trace until this number of records has taken effect. There is no way back.
  void AdvanceTo(std::size_t position);

  // Writes one of the possible disks into a folder, which must be empty. The same random numbers give the same disk.
  void WriteTo(const std::string& folder, ECut cut, std::mt19937_64& random) const;

 private:
  struct Node;
  struct Change;
  class CPick;

  Node& NodeOf(std::uint64_t number);
  void Take(const Record& record);
  void TakeSync(const Record& record);
  void SetName(std::uint64_t folder, std::vector<std::pair<std::string, Node*>> names);
  static Node* Find(const Node& folder, const std::string& name);
  static void Collapse(Node& node);
  void WriteFolder(const Node& node, const std::string& path, CPick& pick) const;
  static void WriteFile(const Node& node, const std::string& path, CPick& pick);

  const std::vector<Record>& records_;
  std::size_t position_ = 0;
  std::unordered_map<std::uint64_t, Node*> current_;  // numbers of removed files are used again by some file systems
  std::vector<std::unique_ptr<Node>> nodes_;
  std::unordered_map<std::uint64_t, std::size_t> syncs_;  // by number: where it began
  Node* root_ = nullptr;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_DISK_H
