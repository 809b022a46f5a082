#include "StorageServer/S3Server/S3Text.h"

#include <gtest/gtest.h>

#include <string>

namespace Tansy::CloudStorage::S3 {
namespace {

std::string AllBytes() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

TEST(S3Text, KeepsUnreservedBytesAndEncodesAllOthersInCapitals) {
  EXPECT_EQ(NameOfKey("photos/2026/a b.jpg"), "photos%2F2026%2Fa%20b.jpg");
  EXPECT_EQ(NameOfKey("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(NameOfKey("\xC3\xA9+%*'"), "%C3%A9%2B%25%2A%27");
}

TEST(S3Text, FindsEveryKeyAgainByItsName) {
  const std::string key = AllBytes();
  EXPECT_EQ(KeyOfName(NameOfKey(key)), key);
  EXPECT_TRUE(IsCanonicalName(NameOfKey(key)));
  EXPECT_EQ(NameOfKey(key).find('/'), std::string::npos);
}

TEST(S3Text, TellsNamesThatNoKeyHas) {
  EXPECT_TRUE(IsCanonicalName("cat.jpg"));
  EXPECT_FALSE(IsCanonicalName("a%2fb"));
  EXPECT_FALSE(IsCanonicalName("a(b)"));
  EXPECT_FALSE(IsCanonicalName("100%"));
}

TEST(S3Text, LeavesWhatIsNoEncodedByteAsItIs) {
  EXPECT_EQ(PercentDecode("%"), "%");
  EXPECT_EQ(PercentDecode("%4"), "%4");
  EXPECT_EQ(PercentDecode("%4g%41"), "%4gA");
  EXPECT_EQ(PercentDecode("a+b%2B"), "a+b+");
}

TEST(S3Text, SplitsAQueryIntoDecodedParameters) {
  const Query query = ParseQuery("prefix=a%2Fb&uploads&&x=a+b&empty=&prefix=second");
  ASSERT_EQ(query.size(), 5U);
  EXPECT_EQ(ParameterOrEmpty(query, "prefix"), "a/b");
  EXPECT_EQ(ParameterOrEmpty(query, "x"), "a b");
  ASSERT_NE(FindParameter(query, "uploads"), nullptr);
  EXPECT_EQ(*FindParameter(query, "uploads"), "");
  EXPECT_EQ(FindParameter(query, "delimiter"), nullptr);
}

TEST(S3Text, JoinsHeadersWhoseNamesDifferInCaseOnly) {
  const LowerHeaders headers = LowerNames({{"X-Amz-Meta-A", "1"}, {"x-amz-meta-a", "2"}, {"Host", "h"}});
  EXPECT_EQ(ValueOf(headers, "x-amz-meta-a"), "1,2");
  EXPECT_EQ(ValueOf(headers, "host"), "h");
  EXPECT_EQ(ValueOf(headers, "range"), "");
}

TEST(S3Text, ReadsDecimalNumbersOnly) {
  std::uint64_t value = 7;
  EXPECT_TRUE(ParseDecimal("18446744073709551615", value));
  EXPECT_EQ(value, 18446744073709551615ULL);
  for (const char* const text : {"", "-1", "+1", " 1", "1 ", "0x1", "18446744073709551616"}) {
    EXPECT_FALSE(ParseDecimal(text, value)) << text;
  }
}

TEST(S3Text, ComparesTextsOfAnyLengths) {
  EXPECT_TRUE(EqualInConstantTime("", ""));
  EXPECT_TRUE(EqualInConstantTime("abc", "abc"));
  EXPECT_FALSE(EqualInConstantTime("abc", "abd"));
  EXPECT_FALSE(EqualInConstantTime("abc", "ab"));
}

}  // namespace
}  // namespace Tansy::CloudStorage::S3
