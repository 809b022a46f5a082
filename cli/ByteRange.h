#ifndef TANSY_CLI_BYTE_RANGE_H
#define TANSY_CLI_BYTE_RANGE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace Tansy::Cli {

// Covers the bytes from `begin` up to `end`; `end` itself is not included.
struct ByteRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

// A range that is fetched by several threads is cut into pieces of this size.
inline constexpr std::uint64_t kRangePiece = std::uint64_t{8} << 20;

// Cuts `whole` into pieces, when there is more than one piece and more than one thread, and calls `work` for each
// piece, on several threads. After the first failure no further piece is begun, `stop` becomes true for those under
// way, and the failure reaches the caller when all have ended. Nothing is called for an empty range.
void ForEachRange(ByteRange whole, std::size_t threads,
                  const std::function<void(ByteRange piece, const std::atomic<bool>& stop)>& work);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_BYTE_RANGE_H
