// The file in which the file calls of a server are noted, in the order in which they took effect. The server's process
// and the test that drives it append to the same file, so that what a client was answered has its place between them.
//
// Each record is one RecordHead, then the name, the other name and the data, without gaps.
#ifndef TANSY_TESTS_PROVE_POWER_TRACE_FORMAT_H
#define TANSY_TESTS_PROVE_POWER_TRACE_FORMAT_H

#include <cstdint>

namespace prove {

enum class ERecord : std::uint32_t {
  kRoot,         // node: the folder below which calls are noted
  kExists,       // node was at `name` in `folder` before the first call, with this data, and is on the disk
  kFolderThere,  // the same for a folder
  kCreate,       // a new file
  kMakeFolder,   // a new folder
  kWrite,        // data at `offset` of node
  kResize,       // node has `size` bytes from now on
  kRename,       // `name` in `folder` becomes `other_name` in `other_folder`
  kRemove,       // `name` in `folder`, a file or a folder
  kLink,         // node is also at `name` in `folder`
  kSyncBegins,   // of node, a file or a folder; `offset` is the number of the sync
  kSyncEnds,     // the same number; `error` is 0 or errno
  kMark,         // `name` is a line that the test has written
};

struct RecordHead {
  ERecord kind = ERecord::kMark;
  std::uint32_t error = 0;
  std::uint64_t node = 0;
  std::uint64_t folder = 0;
  std::uint64_t other_folder = 0;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  std::uint64_t name_size = 0;
  std::uint64_t other_name_size = 0;
  std::uint64_t data_size = 0;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_TRACE_FORMAT_H
