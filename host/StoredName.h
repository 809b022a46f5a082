// How stored bytes are called, and the texts that the name travels in.
//
// A name is a volume, a folder and an id. The catalogue keeps it as "fs01" + "ab-cd-" + 32 hexadecimal digits + ".d":
// four characters that platform.picture_url_encrypt resolves, and a rest whose "-" stand for the separators of a
// storage path. A picture's address is "/pic?id=" + the same text.
//
// Everything read from outside is checked character by character, so that no text can name anything but stored bytes.
#ifndef TANSY_HOST_STORED_NAME_H
#define TANSY_HOST_STORED_NAME_H

#include <cstddef>
#include <string>
#include <string_view>

namespace Tansy::Host {

struct StoredName {
  std::string volume;  // four lower-case letters and digits
  std::string folder;  // four lower-case hexadecimal digits: two levels of two
  std::string id;      // 32 lower-case hexadecimal digits

  bool operator==(const StoredName&) const = default;
};

// Example: "fs01ab-cd-0123456789abcdef0123456789abcdef.d"
std::string LocationText(const StoredName& name);
bool ParseLocationText(std::string_view text, StoredName& name);

// Example: "/pic?id=pc01ab-cd-0123456789abcdef0123456789abcdef.d"
std::string PictureUrl(const StoredName& name);
// Reads the query of such an address, with or without parameters after the id.
bool ParsePictureQuery(std::string_view query, StoredName& name);

// Gives the beginning of the storage path that removals receive: volume, folders and file with "\\" (or "/") between
// them.
std::string StoragePathPrefix(const std::string& volume);
bool ParseStoragePath(std::string_view path, StoredName& name);

// Gives a path relative to the store's folder, for example "fs01/ab/cd/0123456789abcdef0123456789abcdef.d".
std::string FolderPath(const StoredName& name);
std::string FileName(const StoredName& name);
std::string FilePath(const StoredName& name);

// Gives what stands behind "pool_name:" + bucket + ";" in the location that the server hands over, or the whole text
// when it has no such beginning.
std::string_view OwnText(std::string_view location);

// Reads the own text in any of the forms that reads and writes receive: location text, picture address, or the query of
// such an address.
bool ParseOwnText(std::string_view text, StoredName& name);

// Bytes as lower-case hexadecimal digits, and whether a text is `length` of them.
std::string HexText(const unsigned char* bytes, std::size_t count);
bool IsHex(std::string_view text, std::size_t length);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_STORED_NAME_H
