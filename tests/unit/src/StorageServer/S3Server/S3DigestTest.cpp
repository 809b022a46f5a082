#include "StorageServer/S3Server/S3Digest.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <utility>

#include "StorageServer/S3Server/S3Text.h"

namespace Tansy::CloudStorage::S3 {
namespace {

constexpr std::string_view kCheckText = "123456789";

struct Known {
  EDigest kind;
  const char* digest;
};

// The check values that the catalogues of these algorithms give for "123456789".
constexpr Known kKnown[] = {
    {EDigest::kMd5, "25f9e794323b453885f5181f1b624d0b"},
    {EDigest::kSha1, "f7c3bc1d808e04732adf679965ccc34ca7ae3441"},
    {EDigest::kSha256, "15e2b0d3c33891ebb0f1ef609ec419420c20e320ce94c65fbc8c3312448eb225"},
    {EDigest::kCrc32, "cbf43926"},
    {EDigest::kCrc32c, "e3069283"},
    {EDigest::kCrc64Nvme, "ae8b14860a799888"},
};

TEST(S3Digest, GivesTheCheckValueOfEachAlgorithm) {
  for (const Known& known : kKnown) {
    EXPECT_EQ(ToHex(DigestOf(known.kind, kCheckText)), known.digest);
  }
}

TEST(S3Digest, DoesNotDependOnHowTheBytesAreCut) {
  std::string text;
  for (int i = 0; i < 1000; ++i) {
    text += static_cast<char>(i * 7);
  }
  for (const Known& known : kKnown) {
    const std::string whole = DigestOf(known.kind, text);
    for (const std::size_t cut : {1U, 7U, 8U, 9U, 500U, 999U}) {
      CDigest digest(known.kind);
      digest.Add(std::string_view(text).substr(0, cut));
      digest.Add("");
      digest.Add(std::string_view(text).substr(cut));
      EXPECT_EQ(digest.Finish(), whole) << known.digest << " cut at " << cut;
    }
  }
}

TEST(S3Digest, BeginsAnewAfterItsEnd) {
  for (const Known& known : kKnown) {
    CDigest digest(known.kind);
    digest.Add("something else");
    digest.Finish();
    digest.Add(kCheckText);
    EXPECT_EQ(ToHex(digest.Finish()), known.digest);
  }
}

TEST(S3Digest, KnowsTheHeadersOfChecksums) {
  EXPECT_EQ(ChecksumKind("x-amz-checksum-crc32"), EDigest::kCrc32);
  EXPECT_EQ(ChecksumKind("x-amz-checksum-sha256"), EDigest::kSha256);
  EXPECT_EQ(ChecksumKind("x-amz-checksum-algorithm"), std::nullopt);
}

TEST(S3Digest, JoinsChecksumsOfTextsThatFollowOneAnother) {
  const std::string first = "The quick brown fox ";
  for (const EDigest kind : {EDigest::kCrc32, EDigest::kCrc32c, EDigest::kCrc64Nvme}) {
    for (const std::size_t size : {0, 1, 7, 256, 1000003}) {
      const std::string second(size, 'x');
      EXPECT_EQ(JoinChecksums(kind, DigestOf(kind, first), DigestOf(kind, second), size),
                DigestOf(kind, first + second))
          << size;
    }
    EXPECT_FALSE(JoinChecksums(kind, "", DigestOf(kind, first), 1));
  }
  EXPECT_FALSE(JoinChecksums(EDigest::kSha1, DigestOf(EDigest::kSha1, "a"), DigestOf(EDigest::kSha1, "b"), 1));
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
