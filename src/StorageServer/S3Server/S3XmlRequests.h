// Reads the XML that requests of the S3 protocol bring. Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_XML_REQUESTS_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_XML_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "StorageServer/S3Server/S3ChecksumNames.h"
#include "StorageServer/S3Server/S3Errors.h"

namespace Tansy::CloudStorage::S3 {

inline constexpr std::size_t kMostKeysToDelete = 1000;
inline constexpr std::uint32_t kMostParts = 10000;
inline constexpr std::size_t kMostGrants = 100;

struct KeyToDelete {
  std::string key;
  std::string version;  // empty when the client names none
  std::string etag;     // of the object that is to be removed, perhaps in quotes; empty: whatever it is
  bool has_other_conditions = false;
};

struct DeleteRequest {
  bool is_quiet = false;  // the answer names failures only
  std::vector<KeyToDelete> keys;
};

// Fails when the text is no list of 1 to 1000 keys.
Failure ReadDeleteRequest(DeleteRequest& request, std::string_view xml);

struct PartToComplete {
  std::uint32_t number = 0;
  std::string etag;  // without quotes
  std::optional<Checksum> checksum;
};

// Fails when the text is no list of 1 to 10000 parts whose numbers ascend.
Failure ReadCompleteRequest(std::vector<PartToComplete>& parts, std::string_view xml);

// Says whether a list of grants gives rights to the owner only. Fails when the text is no list of at most 100 grants.
Failure ReadAccessControl(bool& is_private, std::string_view xml, std::string_view owner);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_XML_REQUESTS_H
