#include "TansyBase/Encrypt.h"

#include <gtest/gtest.h>

#include <string>

namespace TansyBase {
namespace {

// The examples of RFC 4648.
TEST(Base64, EncodesTheKnownExamples) {
  EXPECT_EQ(Encrypt::Base64Encode(""), "");
  EXPECT_EQ(Encrypt::Base64Encode("f"), "Zg==");
  EXPECT_EQ(Encrypt::Base64Encode("fo"), "Zm8=");
  EXPECT_EQ(Encrypt::Base64Encode("foo"), "Zm9v");
  EXPECT_EQ(Encrypt::Base64Encode("foob"), "Zm9vYg==");
  EXPECT_EQ(Encrypt::Base64Encode("fooba"), "Zm9vYmE=");
  EXPECT_EQ(Encrypt::Base64Encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(Encrypt::Base64Encode("\xFB\xFF\xBF", 3), "+/+/");
}

TEST(Base64, EveryByteAndEveryLengthComesBack) {
  std::string data;
  for (int i = 0; i < 600; ++i) {
    std::string decoded = "left over";
    ASSERT_TRUE(Encrypt::Base64Decode(Encrypt::Base64Encode(data), decoded)) << i;
    ASSERT_EQ(decoded, data) << i;
    data += static_cast<char>(i * 7);
  }
}

TEST(Base64, RefusesWhatIsNoBase64) {
  for (const char* text : {"Z", "Zg", "Zg=", "Zg===", "====", "=", "==", "Zg==Zg==", "Z=g=", "Zm9v\n", "Zm 9", "Zm9-",
                           "Zm9_", "Zh==", "Zm9=", "Zm\xC3\xBC=", "Zm9vYg"}) {
    std::string decoded = "left over";
    EXPECT_FALSE(Encrypt::Base64Decode(text, decoded)) << text;
    EXPECT_EQ(decoded, "") << text;
  }
}

TEST(Base64, DecodesIntoItsOwnInput) {
  std::string text = "Zm9v";
  EXPECT_TRUE(Encrypt::Base64Decode(std::string(text), text));
  EXPECT_EQ(text, "foo");
}

}  // namespace
}  // namespace TansyBase
