#ifndef TANSY_HOST_RADOS_CHUNKS_H
#define TANSY_HOST_RADOS_CHUNKS_H

#include <cstdint>
#include <string>
#include <string_view>

#include "ObjectStore.h"
#include "RadosPool.h"
#include "StoredName.h"

namespace Tansy::Host {

inline constexpr std::uint32_t kRadosChunk = std::uint32_t{4} << 20;  // bytes
// Offsets have 32 bits, and a body may begin at the last of them.
inline constexpr std::uint32_t kMostRadosChunks = 1025;
// There are no folders in a pool; names have this one.
inline constexpr const char* kRadosFolder = "0000";

// The objects of a pool that hold the bytes of a stored name: one for every 4 MiB, called VOLUME.ID.NUMBER with eight
// hexadecimal digits. Example: "rd01.0123456789abcdef0123456789abcdef.00000000". A folder other than kRadosFolder,
// which names from a folder have, stands behind the volume: "fs01ab7c.0123...".
std::string ChunkName(const StoredName& name, std::uint32_t chunk);
// Returns false for names of another shape.
bool ParseChunkName(std::string_view object, StoredName& name, std::uint32_t& chunk);

// Stored bytes in chunks. The first chunk, the head, is there whenever the stored bytes are, and carries their number.
// Other chunks may be missing or short: what is missing reads as zeros. Chunks are written, read and removed side by
// side. Results are 0 or an errno value. Threads: any, also for one name.
class CRadosChunks {
 public:
  explicit CRadosChunks(CRadosPool& pool) : pool_(pool) {}

  // Stores bytes under a name of which there is nothing yet. With `head_last` a head that is there means that all
  // is. After a failure `left_behind` says whether something of it may be left.
  int WriteNew(const StoredName& name, std::uint64_t offset, std::string_view data, bool head_last, bool& left_behind);
  // Writes into stored bytes, or behind them. ENOENT when there are none.
  int WriteMore(const StoredName& name, std::uint64_t offset, std::string_view data);
  // Reads at most `size` bytes, fewer at the end. `whole_size` is the number of all bytes.
  int Read(const StoredName& name, std::uint64_t offset, std::uint32_t size, ReadBuffer& buffer,
           std::uint64_t& whole_size);
  int GetSize(const StoredName& name, std::uint64_t& size);
  // Removes the head, then the other chunks among the first `count`. Those that are gone count as removed.
  int Remove(const StoredName& name, std::uint32_t count);

 private:
  CRadosPool& pool_;
};

// The number of chunks that so many bytes make up; never 0.
std::uint32_t ChunkCount(std::uint64_t size);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_RADOS_CHUNKS_H
