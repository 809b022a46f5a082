#include "StorageClient/ContentMd5.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdio>
#include <string>

namespace Tansy::CloudStorage {
namespace {

TEST(ContentMd5Test, IsTheBase64OfTheHexadecimalDigest) {
  // "d41d8cd98f00b204e9800998ecf8427e" and "900150983cd24fb0d6963f7d28e17f72"
  EXPECT_EQ(ComputeContentMd5("", 0), "ZDQxZDhjZDk4ZjAwYjIwNGU5ODAwOTk4ZWNmODQyN2U=");
  EXPECT_EQ(ComputeContentMd5("abc", 3), "OTAwMTUwOTgzY2QyNGZiMGQ2OTYzZjdkMjhlMTdmNzI=");
}

TEST(ContentMd5Test, TakesNoDataAsEmptyData) {
  EXPECT_EQ(ComputeContentMd5(nullptr, 0), ComputeContentMd5("", 0));
  EXPECT_EQ(ComputeContentMd5(nullptr, 0).size(), 44u);
}

TEST(ContentMd5Test, TakesBytesOfAnyValue) {
  const std::string data("\0\xff\x80 tansy\r\n", 11);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  ASSERT_EQ(EVP_Digest(data.data(), data.size(), digest, &size, EVP_md5(), nullptr), 1);
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02x", digest[i]);
    hex += digits;
  }
  unsigned char expected[64];
  const int length =
      EVP_EncodeBlock(expected, reinterpret_cast<const unsigned char*>(hex.data()), static_cast<int>(hex.size()));
  EXPECT_EQ(ComputeContentMd5(data.data(), static_cast<std::uint32_t>(data.size())),
            std::string(expected, expected + length));
}

}  // namespace
}  // namespace Tansy::CloudStorage
