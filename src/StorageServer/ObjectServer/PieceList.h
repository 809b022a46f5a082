// Bytes that are stored in several pieces one after another, and the text that stands for them where an object has the
// text of its one location: "parts:" + id + "=" + size + "@" + location + "," + size + "@" + location ...
//
// The locations are percent-encoded, so that no text of a host can be taken for a part of the list. The beginning up to
// the "=", which names the upload that the pieces came with, is what the object's row has in the place of a location.
// Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_PIECE_LIST_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_PIECE_LIST_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tansy::CloudStorage::details {

struct Piece {
  std::uint32_t size = 0;
  std::string url;  // as the host left it

  bool operator==(const Piece&) const = default;
};

using PieceList = std::vector<Piece>;

// Gives what the row of an object has that is made of an upload's parts.
std::string PieceOwner(std::string_view upload_id);
std::string PieceListText(std::string_view owner, const PieceList& pieces);

// Says whether an object's url stands for pieces, with or without their list.
bool IsPieceList(std::string_view url);
// Gives the two halves of such a url: the owner, and the list behind the "=". Any other url is an owner without a list.
std::string_view PieceOwnerOf(std::string_view url);
std::string_view PiecesOf(std::string_view url);
// Reads the list of such a url; it is empty when the text is damaged.
PieceList ReadPieceList(std::string_view url);

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_PIECE_LIST_H
