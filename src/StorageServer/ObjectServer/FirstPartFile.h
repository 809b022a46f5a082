// The file that holds the part of a multipart upload that arrived first, until the completion. Its name says to which
// upload it belongs and which part it is, so that an upload can go on after a restart.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_FIRST_PART_FILE_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_FIRST_PART_FILE_H

#include <cstdint>
#include <string>

namespace Tansy::CloudStorage::details {

std::string FirstPartPath(const std::string& upload_id, std::uint32_t number);

// Gives the size of such a file, which is 0 when it cannot be read. Returns false when there is no such file.
bool FirstPartSize(const std::string& path, std::uint64_t& size);

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_FIRST_PART_FILE_H
