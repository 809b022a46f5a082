#include "StoredName.h"

#include <algorithm>

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kVolumeLength = 4;
constexpr std::size_t kIdLength = 32;
constexpr std::size_t kTextLength = kVolumeLength + 6 + kIdLength + 2;
constexpr std::string_view kPicturePrefix = "/pic?";
constexpr std::string_view kIdParameter = "id=";

bool IsVolume(std::string_view text) {
  return text.size() == kVolumeLength &&
         std::all_of(text.begin(), text.end(), [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); });
}

}  // namespace
}  // namespace details

bool IsHex(std::string_view text, std::size_t length) {
  return text.size() == length &&
         std::all_of(text.begin(), text.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::string HexText(const unsigned char* bytes, std::size_t count) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(count * 2);
  for (std::size_t i = 0; i < count; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

std::string LocationText(const StoredName& name) {
  return name.volume + name.folder.substr(0, 2) + "-" + name.folder.substr(2) + "-" + name.id + ".d";
}

bool ParseLocationText(std::string_view text, StoredName& name) {
  if (text.size() != details::kTextLength || text.substr(text.size() - 2) != ".d" || text[6] != '-' || text[9] != '-') {
    return false;
  }
  const std::string_view volume = text.substr(0, 4);
  const std::string_view first = text.substr(4, 2);
  const std::string_view second = text.substr(7, 2);
  const std::string_view id = text.substr(10, details::kIdLength);
  if (!details::IsVolume(volume) || !IsHex(first, 2) || !IsHex(second, 2) || !IsHex(id, details::kIdLength)) {
    return false;
  }
  name.volume = volume;
  name.folder = std::string(first) + std::string(second);
  name.id = id;
  return true;
}

std::string PictureUrl(const StoredName& name) {
  return std::string(details::kPicturePrefix) + std::string(details::kIdParameter) + LocationText(name);
}

bool ParsePictureQuery(std::string_view query, StoredName& name) {
  while (!query.empty()) {
    const std::string_view piece = query.substr(0, query.find('&'));
    if (piece.substr(0, details::kIdParameter.size()) == details::kIdParameter) {
      return ParseLocationText(piece.substr(details::kIdParameter.size()), name);
    }
    query.remove_prefix(std::min(query.size(), piece.size() + 1));
  }
  return false;
}

std::string StoragePathPrefix(const std::string& volume) {
  return volume + "\\";
}

bool ParseStoragePath(std::string_view path, StoredName& name) {
  // In this form the text has one more separator: volume\ab\cd\id.d
  std::string text(path);
  std::replace(text.begin(), text.end(), '/', '\\');
  if (text.size() != details::kTextLength + 1 || text[4] != '\\' || text[7] != '\\' || text[10] != '\\') {
    return false;
  }
  text[7] = '-';
  text[10] = '-';
  return ParseLocationText(text.erase(4, 1), name);
}

std::string FolderPath(const StoredName& name) {
  return name.volume + "/" + name.folder.substr(0, 2) + "/" + name.folder.substr(2);
}

std::string FileName(const StoredName& name) {
  return name.id + ".d";
}

std::string FilePath(const StoredName& name) {
  return FolderPath(name) + "/" + FileName(name);
}

std::string_view OwnText(std::string_view location) {
  // The name of a bucket may hold a ";", but the text behind it never does, so the last one counts.
  const std::size_t end = location.rfind(';');
  return end == std::string_view::npos ? location : location.substr(end + 1);
}

bool ParseOwnText(std::string_view text, StoredName& name) {
  if (text.substr(0, details::kPicturePrefix.size()) == details::kPicturePrefix) {
    return ParsePictureQuery(text.substr(details::kPicturePrefix.size()), name);
  }
  return ParseLocationText(text, name) || ParsePictureQuery(text, name);
}

}  // namespace Tansy::Host
