// What the headers of a copy say. Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_COPY_SOURCE_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_COPY_SOURCE_H

#include <cstdint>
#include <string>
#include <string_view>

#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Text.h"

namespace Tansy::CloudStorage::S3 {

inline constexpr std::string_view kCopySourceHeader = "x-amz-copy-source";

struct CopySource {
  std::string bucket;
  std::string key;
};

// Reads "/bucket/key" or "bucket/key", percent-encoded, perhaps with "?versionId=null" behind it.
Failure ReadCopySource(CopySource& source, std::string_view header);

// Gives the conditions on the source as a read would have them: x-amz-copy-source-if-match becomes if-match.
LowerHeaders SourceConditions(const LowerHeaders& headers);

// Reads "bytes=first-last", both inside an object of `size` bytes. Nothing is changed when there is no such header.
Failure ReadCopyRange(std::uint64_t& begin, std::uint64_t& length, std::string_view header, std::uint64_t size);

// Whether the copy gets the metadata of its source or those of the request.
enum class EMetadata { kCopy, kReplace };
Failure ReadMetadataDirective(EMetadata& metadata, const LowerHeaders& headers);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_COPY_SOURCE_H
