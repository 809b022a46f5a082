#include "StorageClient/PieceCut.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace Tansy::CloudStorage {

bool CutPiece(SPieceCut& cut, const std::string& tail, std::string_view piece, std::uint32_t part_size, bool last) {
  if (tail.empty() && (piece.size() == part_size || (last && piece.size() < part_size))) {
    if (!piece.empty()) {
      cut.parts.push_back(piece);
    }
    return true;
  }
  if (tail.empty() && piece.empty()) {
    return true;
  }
  if (part_size < kMinCutPartBytes) {
    return false;
  }
  if (!tail.empty()) {
    const std::size_t taken = std::min(part_size - tail.size(), piece.size());
    cut.joined = tail;
    cut.joined.append(piece.substr(0, taken));
    piece.remove_prefix(taken);
    if (cut.joined.size() < part_size && !last) {
      cut.tail = std::move(cut.joined);
      return true;
    }
    cut.parts.emplace_back(cut.joined);
  }
  for (; piece.size() >= part_size; piece.remove_prefix(part_size)) {
    cut.parts.push_back(piece.substr(0, part_size));
  }
  if (!piece.empty() && last) {
    cut.parts.push_back(piece);
  } else {
    cut.tail = piece;
  }
  return true;
}

}  // namespace Tansy::CloudStorage
