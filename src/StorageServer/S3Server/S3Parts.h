// The parts of an upload, and what becomes of them when it is completed. Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_PARTS_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_PARTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "StorageServer/ObjectServer/PartUploads.h"
#include "StorageServer/ObjectServer/PieceList.h"
#include "StorageServer/S3Server/S3ChecksumNames.h"
#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Text.h"
#include "StorageServer/S3Server/S3XmlRequests.h"

namespace Tansy::CloudStorage::S3 {

// Every part but the last one of an object has at least this many bytes.
inline constexpr std::uint32_t kLeastPartBytes = 5 * 1024 * 1024;

// The client says with these headers what checksums its parts will have, and whether that of the object is of all bytes
// (FULL_OBJECT) or of the parts' checksums (COMPOSITE). They are kept with the upload.
inline constexpr const char* kChecksumAlgorithm = "x-amz-checksum-algorithm";
inline constexpr const char* kChecksumType = "x-amz-checksum-type";
inline constexpr const char* kOfAllBytes = "FULL_OBJECT";
inline constexpr const char* kOfParts = "COMPOSITE";

// Reads the number of a part, 1 to 10000.
Failure ReadPartNumber(std::uint32_t& number, const Query& query);

// What is known about a part beside its bytes; kept as the text of its attributes.
struct PartDigests {
  std::string etag;  // without quotes
  std::optional<Checksum> checksum;
};
std::string ToText(const PartDigests& digests);
PartDigests PartDigestsOf(const UploadedPart& part);

// Gives the entity tag of an object that is made of parts with these entity tags; nothing when one of them is no MD5
// digest.
std::optional<std::string> ETagOfParts(const std::vector<PartToComplete>& parts);

// The object that an upload becomes.
struct CompletedUpload {
  CloudStorage::details::PieceList pieces;
  std::uint64_t size = 0;
  std::string etag;
  // These are known when all parts have a checksum of the same kind.
  std::optional<Checksum> of_parts;  // of the checksums of all parts, with their number behind it
  std::optional<Checksum> of_bytes;  // of all bytes; of kinds that can be joined
  std::string checksum_type;         // as the upload was begun
};

// Compares the client's list with the parts that were uploaded, which are ordered by number.
Failure MatchParts(CompletedUpload& result, const std::vector<PartToComplete>& list,
                   const std::vector<UploadedPart>& uploaded);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_PARTS_H
