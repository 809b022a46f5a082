#include "StorageClient/Md5.h"
#include "fakes/RandomBytes.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

namespace Tansy::CloudStorage {
namespace {

std::string Hex(const std::uint8_t* bytes, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02x", bytes[i]);
    text += digits;
  }
  return text;
}

std::string Digest(const std::string& data) {
  const CMd5::Digest digest = CMd5::Compute(data.data(), data.size());
  return Hex(digest.data(), digest.size());
}

// Another implementation computes the same digest.
std::string ReferenceDigest(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EXPECT_EQ(EVP_Digest(data.data(), data.size(), digest, &size, EVP_md5(), nullptr), 1);
  return Hex(digest, size);
}

TEST(Md5Test, AnswersTheTestSuiteOfItsDefinition) {
  EXPECT_EQ(Digest(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(Digest("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(Digest("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(Digest("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(Digest("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
  EXPECT_EQ(Digest("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "d174ab98d277d9f5a5611c2c9f419d9f");
  EXPECT_EQ(Digest("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
            "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5Test, EqualsAnotherImplementationForEveryLengthAroundTheBlocks) {
  const std::string data = Tests::RandomBytes(64 * 5, 1);
  for (std::size_t size = 0; size <= data.size(); ++size) {
    const std::string part = data.substr(0, size);
    ASSERT_EQ(Digest(part), ReferenceDigest(part)) << size << " bytes";
  }
}

TEST(Md5Test, EqualsAnotherImplementationForLargeData) {
  const std::string data = Tests::RandomBytes(2097152 + 17, 2);
  EXPECT_EQ(Digest(data), ReferenceDigest(data));
}

TEST(Md5Test, IsTheSameHoweverTheDataIsCut) {
  const std::string data = Tests::RandomBytes(1000, 3);
  const std::string expected = ReferenceDigest(data);
  std::mt19937 random(4);
  for (int round = 0; round < 200; ++round) {
    CMd5 md5;
    for (std::size_t at = 0; at < data.size();) {
      const std::size_t size = std::min<std::size_t>(random() % 150, data.size() - at);
      md5.Update(data.data() + at, size);
      at += size;
    }
    const CMd5::Digest digest = md5.Final();
    ASSERT_EQ(Hex(digest.data(), digest.size()), expected) << "round " << round;
  }
}

TEST(Md5Test, CountsBitsBeyondThirtyTwo) {
  // 512 MiB are 2^32 bits: the length at the end needs its upper half.
  const std::string block(1 << 20, 'x');
  CMd5 md5;
  EVP_MD_CTX* const reference = EVP_MD_CTX_new();
  ASSERT_EQ(EVP_DigestInit_ex(reference, EVP_md5(), nullptr), 1);
  for (int i = 0; i < 513; ++i) {
    md5.Update(block.data(), block.size());
    ASSERT_EQ(EVP_DigestUpdate(reference, block.data(), block.size()), 1);
  }
  unsigned char expected[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  ASSERT_EQ(EVP_DigestFinal_ex(reference, expected, &size), 1);
  EVP_MD_CTX_free(reference);
  const CMd5::Digest digest = md5.Final();
  EXPECT_EQ(Hex(digest.data(), digest.size()), Hex(expected, size));
}

}  // namespace
}  // namespace Tansy::CloudStorage
