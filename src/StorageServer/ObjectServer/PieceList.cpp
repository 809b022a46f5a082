#include "StorageServer/ObjectServer/PieceList.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <system_error>
#include <utility>

namespace Tansy::CloudStorage::details {

namespace {

constexpr std::string_view kMark = "parts:";
constexpr char kListBegin = '=';

bool IsPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_';
}

void AppendEncoded(std::string& text, std::string_view url) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  for (const char c : url) {
    if (IsPlain(c)) {
      text += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      text.append(1, '%').append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 15]);
    }
  }
}

template <class Number>
bool ReadWhole(std::string_view text, Number& number, int base = 10) {
  const char* const end = text.data() + text.size();
  const auto [ptr, error] = std::from_chars(text.data(), end, number, base);
  return error == std::errc() && ptr == end;
}

std::optional<std::string> Decoded(std::string_view text) {
  std::string url;
  url.reserve(text.size());
  while (!text.empty()) {
    if (text.front() != '%') {
      url += text.front();
      text.remove_prefix(1);
      continue;
    }
    unsigned byte = 0;
    if (text.size() < 3 || !ReadWhole(text.substr(1, 2), byte, 16)) {
      return std::nullopt;
    }
    url += static_cast<char>(byte);
    text.remove_prefix(3);
  }
  return url;
}

std::optional<Piece> ReadPiece(std::string_view text) {
  const std::size_t at = text.find('@');
  Piece piece;
  if (at == std::string_view::npos || !ReadWhole(text.substr(0, at), piece.size)) {
    return std::nullopt;
  }
  std::optional<std::string> url = Decoded(text.substr(at + 1));
  if (!url || url->empty()) {
    return std::nullopt;
  }
  piece.url = std::move(*url);
  return piece;
}

}  // namespace

std::string PieceOwner(std::string_view upload_id) {
  return std::string(kMark).append(upload_id);
}

std::string PieceListText(std::string_view owner, const PieceList& pieces) {
  std::string text(owner);
  char before = kListBegin;
  for (const Piece& piece : pieces) {
    text.append(1, before).append(std::to_string(piece.size)).append(1, '@');
    AppendEncoded(text, piece.url);
    before = ',';
  }
  return text;
}

bool IsPieceList(std::string_view url) {
  return url.starts_with(kMark);
}

std::string_view PieceOwnerOf(std::string_view url) {
  return IsPieceList(url) ? url.substr(0, url.find(kListBegin)) : url;
}

std::string_view PiecesOf(std::string_view url) {
  return IsPieceList(url) ? url.substr(std::min(PieceOwnerOf(url).size() + 1, url.size())) : std::string_view();
}

PieceList ReadPieceList(std::string_view url) {
  PieceList pieces;
  std::string_view list = PiecesOf(url);
  while (!list.empty()) {
    const std::string_view text = list.substr(0, list.find(','));
    list.remove_prefix(std::min(text.size() + 1, list.size()));
    std::optional<Piece> piece = ReadPiece(text);
    if (!piece) {
      return {};
    }
    pieces.push_back(std::move(*piece));
  }
  return pieces;
}

}  // namespace Tansy::CloudStorage::details
