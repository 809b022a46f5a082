#include "ByteRange.h"

#include <algorithm>

namespace Tansy::Cli {

void ForEachRange(ByteRange whole, CTeam& team,
                  const std::function<void(ByteRange piece, const std::atomic<bool>& stop)>& work) {
  const std::uint64_t size = whole.end - whole.begin;
  const std::uint64_t pieces = team.Size() > 1 ? (size + kRangePiece - 1) / kRangePiece : 1;
  const std::uint64_t piece_size = pieces > 1 ? kRangePiece : size;
  std::atomic<std::uint64_t> next{0};
  team.Together(static_cast<std::size_t>(pieces), [&](const std::atomic<bool>& stop) {
    for (std::uint64_t number = next++; number < pieces && size > 0 && !stop; number = next++) {
      const std::uint64_t begin = whole.begin + number * piece_size;
      work({begin, std::min(begin + piece_size, whole.end)}, stop);
    }
  });
}

}  // namespace Tansy::Cli
