#ifndef TANSY_SRC_STORAGE_CLIENT_PIECE_CUT_H
#define TANSY_SRC_STORAGE_CLIENT_PIECE_CUT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tansy::CloudStorage {

// The client cuts no parts that are smaller than this, except for the last part of an object, because an upload would
// need too many requests.
inline constexpr std::uint32_t kMinCutPartBytes = 65536;

// The result of cutting one piece of a piecewise upload.
struct SPieceCut {
  std::vector<std::string_view> parts;  // in upload order; they point into the piece and into `joined`
  std::string joined;                   // the bytes kept from earlier pieces and the first ones of this piece
  std::string tail;                     // bytes that wait for the next piece
};

// Cuts a piece into parts. The server stores part n at (n - 1) times the size of part 1, so every part but the last
// must have that size. A piece that fits goes out as it is: a piece of `part_size` bytes, or a smaller last one. Any
// other piece is cut, and what is left over is kept and gathered with the pieces that follow. `tail` is what earlier
// pieces left. Returns false when the piece has to be cut and the parts would be smaller than kMinCutPartBytes.
bool CutPiece(SPieceCut& cut, const std::string& tail, std::string_view piece, std::uint32_t part_size, bool last);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_PIECE_CUT_H
