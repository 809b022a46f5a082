// Digests and checksums of bodies, computed while the bytes come in.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_DIGEST_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_DIGEST_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Tansy::CloudStorage::S3 {

enum class EDigest { kMd5, kSha1, kSha256, kCrc32, kCrc32c, kCrc64Nvme };

// One digest. Objects belong to one thread at a time. The functions throw std::bad_alloc, also when the cryptographic
// library refuses, which it does for want of memory only.
class CDigest {
 public:
  explicit CDigest(EDigest kind);
  ~CDigest();
  CDigest(CDigest&&) noexcept;
  CDigest& operator=(CDigest&&) noexcept;

  EDigest Kind() const;
  void Add(std::string_view bytes);
  // Gives the digest as bytes; a checksum has its most significant byte first. Afterwards the digest begins anew.
  std::string Finish();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Gives the checksum of one text behind another from the checksums of both; the second one has `length` bytes. Only
// cyclic redundancy checks can be joined: for other kinds, and for what is none of this kind, it gives nothing.
std::optional<std::string> JoinChecksums(EDigest kind, std::string_view first, std::string_view second,
                                         std::uint64_t length);

// Gives the digest of one text.
std::string DigestOf(EDigest kind, std::string_view text);

// Maps the lower-case name of a checksum header ("x-amz-checksum-crc32") to its kind; nothing for any other header.
std::optional<EDigest> ChecksumKind(std::string_view header);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_DIGEST_H
