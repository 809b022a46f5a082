#include "StorageClient/Base64Buffer.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace Tansy::CloudStorage {
namespace {

std::string Encode(const std::string& data) {
  char text[512];
  std::uint32_t length = 0;
  EXPECT_EQ(Base64EncodeBuffer(data.data(), static_cast<std::uint32_t>(data.size()), text, sizeof(text), length), 0);
  return {text, length};
}

TEST(Base64BufferTest, AnswersTheTestVectorsOfTheStandard) {
  EXPECT_EQ(Encode(""), "");
  EXPECT_EQ(Encode("f"), "Zg==");
  EXPECT_EQ(Encode("fo"), "Zm8=");
  EXPECT_EQ(Encode("foo"), "Zm9v");
  EXPECT_EQ(Encode("foob"), "Zm9vYg==");
  EXPECT_EQ(Encode("fooba"), "Zm9vYmE=");
  EXPECT_EQ(Encode("foobar"), "Zm9vYmFy");
}

TEST(Base64BufferTest, EqualsAnotherImplementationForEveryByteAndLength) {
  std::string data;
  for (int i = 0; i < 256; ++i) {
    data.push_back(static_cast<char>(i));
    std::vector<unsigned char> expected(4 * ((data.size() + 2) / 3) + 1);
    const int length = EVP_EncodeBlock(expected.data(), reinterpret_cast<const unsigned char*>(data.data()),
                                       static_cast<int>(data.size()));
    ASSERT_EQ(Encode(data), std::string(expected.begin(), expected.begin() + length)) << data.size() << " bytes";
  }
}

TEST(Base64BufferTest, TellsTheLengthAndLeavesATooSmallBufferAlone) {
  char text[8];
  for (std::uint32_t size = 0; size < 8; ++size) {
    std::fill(std::begin(text), std::end(text), '#');
    std::uint32_t length = 0;
    EXPECT_EQ(Base64EncodeBuffer("fooba", 5, text, size, length), -2) << size;
    EXPECT_EQ(length, 8u);
    EXPECT_EQ(std::string(text, 8), "########") << size;
  }
  std::uint32_t length = 0;
  EXPECT_EQ(Base64EncodeBuffer("fooba", 5, text, 8, length), 0);
  EXPECT_EQ(std::string(text, length), "Zm9vYmE=");
}

TEST(Base64BufferTest, WritesNothingBehindItsText) {
  char text[9] = {'#', '#', '#', '#', '#', '#', '#', '#', '#'};
  std::uint32_t length = 0;
  EXPECT_EQ(Base64EncodeBuffer("foob", 4, text, sizeof(text), length), 0);
  EXPECT_EQ(length, 8u);
  EXPECT_EQ(text[8], '#');
}

TEST(Base64BufferTest, RefusesALengthWhoseTextThirtyTwoBitsCannotMeasure) {
  // (2^32 - 1 + 2) / 3 * 4 wraps round to a small number in 32 bits; no byte is read before the refusal.
  char text[16];
  std::uint32_t length = 0;
  EXPECT_EQ(Base64EncodeBuffer(nullptr, std::numeric_limits<std::uint32_t>::max(), text, sizeof(text), length), -2);
  EXPECT_EQ(Base64EncodeBuffer(nullptr, 3221225472u, text, sizeof(text), length), -2);
}

}  // namespace
}  // namespace Tansy::CloudStorage
