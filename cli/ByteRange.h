#ifndef TANSY_CLI_BYTE_RANGE_H
#define TANSY_CLI_BYTE_RANGE_H

#include <atomic>
#include <cstdint>
#include <functional>

#include "Team.h"

namespace Tansy::Cli {

// Covers the bytes from `begin` up to `end`; `end` itself is not included.
struct ByteRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

// A range that is fetched by several threads is cut into pieces of this size.
inline constexpr std::uint64_t kRangePiece = std::uint64_t{8} << 20;

// Cuts `whole` into pieces, when there is more than one piece and more than one member of the team, and calls `work`
// for each piece, on several members. After the first failure no further piece is begun, `stop` becomes true for those
// under way, and the failure reaches the caller when all have ended. Nothing is called for an empty range.
void ForEachRange(ByteRange whole, CTeam& team,
                  const std::function<void(ByteRange piece, const std::atomic<bool>& stop)>& work);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_BYTE_RANGE_H
