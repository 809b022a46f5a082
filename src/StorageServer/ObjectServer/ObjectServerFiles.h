// Local files of the object server: the first parts of multipart uploads.
//
// Paths are UTF-8; "/" and "\\" both separate. Threads: any, for different files. Failures are logged.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_FILES_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_FILES_H

#include <cstddef>
#include <memory>
#include <string>

namespace Tansy::CloudStorage::details {

// Makes every folder of the path that is missing, and sees to it that a power failure does not take the folders away.
// What follows the last separator is a file and is not made. An absolute POSIX path fails, because its first prefix is
// empty.
// Fixed: docs/compatibility.md, "Misspelt names".
bool CreateFloder(const std::string& path);

// Writes a file and makes its folders first; `mode` is that of fopen. Returns true when the bytes are on stable
// storage.
bool SaveFile(const std::string& path, const char* data, std::size_t length, const char* mode);

// Replaces a file: after a crash, either the old file or the new one is there as a whole. On failure the old file
// stays.
bool ReplaceFile(const std::string& path, const char* data, std::size_t length);

// Gives the first `length` bytes of a file followed by a NUL; null when `length` is 0 or the file is shorter.
std::unique_ptr<char[]> ReadFile(const std::string& path, std::size_t length);

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_FILES_H
