// The file that holds the first part of a multipart upload to arrive, until the completion. Its name says whose it is
// and which part, so that an upload can go on after a restart.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_FIRST_PART_FILE_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_FIRST_PART_FILE_H

#include <cstdint>
#include <string>

namespace Tansy::CloudStorage::details {

std::string FirstPartPath(const std::string& upload_id, std::uint32_t number);

// The size of such a file; false when there is none, and 0 when it cannot be read.
bool FirstPartSize(const std::string& path, std::uint64_t& size);

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_FIRST_PART_FILE_H
