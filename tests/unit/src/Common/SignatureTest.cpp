#include "Common/Signature.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace Tansy::CloudStorage {
namespace {

TEST(AuthPrefix, IsTheSchemeWord) {
  EXPECT_EQ(AuthPrefix(), "quorvane");
}

// The cases of RFC 2202, section 3, their digests in Base64.
TEST(SignHmacSha1, EqualsTheVectorsOfTheStandard) {
  EXPECT_EQ(SignHmacSha1("Hi There", std::string(20, '\x0b')), "thcxhlUFcmTii8C2+zeMjvFGvgA=");
  EXPECT_EQ(SignHmacSha1("what do ya want for nothing?", "Jefe"), "7/zfauXrL6LSdBbV8YTfnCWafHk=");
  EXPECT_EQ(SignHmacSha1(std::string(50, '\xdd'), std::string(20, '\xaa')), "El1zQrmsEc2Ro5r0iqF7T2PxddM=");
  EXPECT_EQ(SignHmacSha1("Test Using Larger Than Block-Size Key - Hash Key First", std::string(80, '\xaa')),
            "qkrl4VJy0A6VcFY3zoo7Ve1AIRI=");
}

TEST(SignHmacSha1, SignsEmptyTextUnderAnEmptyKey) {
  EXPECT_EQ(SignHmacSha1("", ""), "+9sdGxiqbAgyS31ktx+3Y3BpDh0=");
  EXPECT_EQ(SignHmacSha1(std::string_view(), std::string_view()), "+9sdGxiqbAgyS31ktx+3Y3BpDh0=");
}

TEST(SignHmacSha1, KeepsNothingOfTheKeyBefore) {
  const std::string first = SignHmacSha1("text", "one");
  const std::string second = SignHmacSha1("text", "two");
  EXPECT_NE(first, second);
  EXPECT_EQ(SignHmacSha1("text", "one"), first);
  EXPECT_EQ(SignHmacSha1("text", "one"), first);
  EXPECT_NE(SignHmacSha1("text", ""), first);
  EXPECT_EQ(SignHmacSha1("text", "two"), second);
}

TEST(SignHmacSha1, TakesKeysAndTextsWithNulBytes) {
  EXPECT_NE(SignHmacSha1(std::string("a\0b", 3), "key"), SignHmacSha1("a", "key"));
  EXPECT_NE(SignHmacSha1("text", std::string("k\0x", 3)), SignHmacSha1("text", std::string("k\0y", 3)));
}

TEST(SignHmacSha1, MaySignInManyThreadsAtOnce) {
  const std::string expected_one = SignHmacSha1("text", "one");
  const std::string expected_two = SignHmacSha1("text", "two");
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (std::size_t i = 0; i < wrong.size(); ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 500; ++round) {
        wrong[i] += SignHmacSha1("text", "one") != expected_one;
        wrong[i] += SignHmacSha1("text", "two") != expected_two;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace Tansy::CloudStorage
