#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_BODY_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_BODY_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "StorageServer/S3Server/S3ChecksumNames.h"
#include "StorageServer/S3Server/S3ChunkDecoder.h"
#include "StorageServer/S3Server/S3Digest.h"
#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Signature.h"
#include "StorageServer/S3Server/S3Text.h"

namespace Tansy::CloudStorage::S3 {

// The longest object; sizes are kept in 32 bits.
inline constexpr std::uint64_t kMaxObjectBytes = 0xFFFFFFFF;

// Takes the body of one request from its first byte to its last: decodes it when it is aws-chunked, and compares it
// with every length, digest and checksum that the request names. What was handed on counts only when End finds nothing
// wrong. One thread uses an object at a time.
class CBody {
 public:
  // Reads what the headers say about the body. Must be called once, before everything else.
  Failure Begin(const Signed& request, const LowerHeaders& headers);
  // Takes the next bytes as they came, and hands those that they stand for to `sink`.
  Failure Add(std::string_view bytes, const ByteSink& sink);
  // Says that all bytes have come.
  Failure End();

  bool IsChunked() const { return decoder_.has_value(); }
  std::uint64_t Size() const { return size_; }  // of the bytes that were handed on
  // Gives the MD5 digest of the body as lower-case digits, after End.
  const std::string& Md5() const { return md5_text_; }
  // Gives the checksum that the client named and that the body has, after End.
  std::optional<Checksum> NamedChecksum() const;

 private:
  // A checksum that the client named, in a header or in the trailer that it announced.
  struct Check {
    CDigest digest;
    std::string header;
    std::string expected;  // in Base64; empty: the trailer will say it
  };

  Failure BeginChunks(const Signed& request, const LowerHeaders& headers);
  Failure BeginChecks(const LowerHeaders& headers);
  Failure AddCheck(EDigest kind, const std::string& header, const std::string& expected);
  Failure EndChecks();
  Failure CheckTrailerNames() const;
  void Take(std::string_view bytes);

  std::optional<CChunkDecoder> decoder_;
  std::optional<std::uint64_t> length_;  // as the client announced it
  std::uint64_t size_ = 0;
  CDigest md5_{EDigest::kMd5};
  std::string md5_text_;
  std::string expected_md5_;  // 16 bytes; empty when the client names none
  std::optional<CDigest> sha256_;
  std::string expected_sha256_;
  std::vector<Check> checks_;
};

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_BODY_H
