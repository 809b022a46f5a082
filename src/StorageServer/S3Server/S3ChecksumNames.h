// Checksums that clients name: how they are written in headers and in XML. Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CHECKSUM_NAMES_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CHECKSUM_NAMES_H

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "StorageServer/S3Server/S3Digest.h"

namespace Tansy::CloudStorage::S3 {

// A checksum as headers carry it.
struct Checksum {
  EDigest kind = EDigest::kCrc32;
  std::string value;  // in Base64

  bool operator==(const Checksum&) const = default;
};

struct ChecksumNames {
  EDigest kind;
  std::string_view header;     // "x-amz-checksum-crc32"
  std::string_view element;    // "ChecksumCRC32"
  std::string_view algorithm;  // "CRC32", as in x-amz-checksum-algorithm
};

inline constexpr std::array kChecksumNames = {
    ChecksumNames{EDigest::kCrc32, "x-amz-checksum-crc32", "ChecksumCRC32", "CRC32"},
    ChecksumNames{EDigest::kCrc32c, "x-amz-checksum-crc32c", "ChecksumCRC32C", "CRC32C"},
    ChecksumNames{EDigest::kCrc64Nvme, "x-amz-checksum-crc64nvme", "ChecksumCRC64NVME", "CRC64NVME"},
    ChecksumNames{EDigest::kSha1, "x-amz-checksum-sha1", "ChecksumSHA1", "SHA1"},
    ChecksumNames{EDigest::kSha256, "x-amz-checksum-sha256", "ChecksumSHA256", "SHA256"},
};

// `kind` is that of a checksum, which MD5 is not.
const ChecksumNames& NamesOf(EDigest kind);
std::optional<EDigest> ChecksumOfAlgorithm(std::string_view algorithm);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CHECKSUM_NAMES_H
