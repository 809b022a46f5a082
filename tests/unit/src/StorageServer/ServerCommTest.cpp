#include "StorageServer/ServerComm.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Tansy::CloudStorage {
namespace {

TEST(Fingerprint, TellsTextsApartAndNothingElse) {
  EXPECT_EQ(Fingerprint("").size(), 32u);
  EXPECT_EQ(Fingerprint("abc"), "ba7816bf8f01cfea414140de5dae2223");  // printf abc | sha256sum | cut -c 1-32
  EXPECT_NE(Fingerprint("abd"), Fingerprint("abc"));
}

struct Decoding {
  const char* name;
  std::string text;
  std::string decoded;
};

class QueryDecoding : public testing::TestWithParam<Decoding> {};

TEST_P(QueryDecoding, GivesTheDecodedText) {
  EXPECT_EQ(DecodeHttpUrlQuery(GetParam().text), GetParam().decoded);
}

INSTANTIATE_TEST_SUITE_P(
    ServerComm, QueryDecoding,
    testing::Values(Decoding{"Empty", "", ""}, Decoding{"Plain", "abc-._~/?", "abc-._~/?"},
                    Decoding{"SlashAndPlus", "a%2Fb+c", "a/b c"}, Decoding{"LowerCaseDigits", "a%2fb", "a/b"},
                    Decoding{"EscapedLetterStays", "%41", "%41"}, Decoding{"EscapedSmallLetterStays", "%7a", "%7a"},
                    Decoding{"EscapedDigitStays", "%30%39", "%30%39"},
                    Decoding{"BesideLettersAndDigits", "%2F%3A%40%5B%60%7B", "/:@[`{"},
                    Decoding{"TextAfterAKeptEscapeIsDecoded", "%41%2B+", "%41+ "},
                    Decoding{"PercentSignOnceOnly", "%2541", "%41"}, Decoding{"HalfAnEscapeAtTheEnd", "a%4", "a%4"},
                    Decoding{"PercentAtTheEnd", "a%", "a%"}, Decoding{"SecondCharacterNotHex", "%2Gx", "%2Gx"},
                    Decoding{"FirstCharacterNotHex", "%G2x", "%G2x"}, Decoding{"TwoPercentSigns", "%%2F", "%/"},
                    Decoding{"BytesAbove127", "%E4%BD%A0\xFF", "\xE4\xBD\xA0\xFF"},
                    Decoding{"LettersOfOtherCodePagesAreDecoded", "%C0%E9", "\xC0\xE9"},
                    Decoding{"NulEndsTheText", "a%00b", "a"}, Decoding{"OnlyNul", "%00", ""},
                    Decoding{"LineEnd", "a%0D%0Ab", "a\r\nb"}, Decoding{"EscapedBlank", "a%20b", "a b"}),
    [](const auto& tested) { return tested.param.name; });

TEST(UrlQueryDecode, RefusesABufferShorterThanTheInput) {
  char buffer[4] = {'x', 'x', 'x', 'x'};
  EXPECT_FALSE(UrlQueryDecode(buffer, 2, "a+b", 3));
  EXPECT_EQ(buffer[0], 'x');
}

TEST(UrlQueryDecode, FillsABufferOfTheSameLength) {
  char buffer[4] = {'x', 'x', 'x', 'x'};
  EXPECT_TRUE(UrlQueryDecode(buffer, 3, "a+b", 3));
  EXPECT_EQ(std::string(buffer, 4), "a bx");
}

TEST(UrlQueryDecode, ClearsWhatTheTextDoesNotFill) {
  std::string buffer(8, 'x');
  EXPECT_TRUE(UrlQueryDecode(buffer.data(), 8, "%2Fa", 4));
  EXPECT_EQ(buffer, std::string("/a\0\0\0\0\0\0", 8));
}

TEST(UrlQueryDecode, LooksAtTheGivenLengthOnly) {
  char buffer[8];
  EXPECT_TRUE(UrlQueryDecode(buffer, 8, "%2F", 2));
  EXPECT_STREQ(buffer, "%2");
}

TEST(UrlQueryDecode, DecodesNothingIntoNothing) {
  char buffer[1] = {'x'};
  EXPECT_TRUE(UrlQueryDecode(buffer, 0, "", 0));
  EXPECT_EQ(buffer[0], 'x');
}

TEST(UrlQueryDecode, RefusesWhatMakesNoSense) {
  char buffer[4];
  EXPECT_FALSE(UrlQueryDecode(nullptr, 4, "a", 1));
  EXPECT_FALSE(UrlQueryDecode(buffer, 4, nullptr, 1));
  EXPECT_FALSE(UrlQueryDecode(buffer, 4, "a", -1));
  EXPECT_FALSE(UrlQueryDecode(buffer, -2, "a", -3));
}

TEST(UrlQueryDecode, TellsEveryEscapedByteFromLettersAndDigits) {
  for (int value = 1; value < 256; ++value) {
    char escape[4];
    std::snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned int>(value));
    const bool kept =
        (value >= '0' && value <= '9') || (value >= 'A' && value <= 'Z') || (value >= 'a' && value <= 'z');
    const std::string expected = kept ? std::string(escape) : std::string(1, static_cast<char>(value));
    EXPECT_EQ(DecodeHttpUrlQuery(escape), expected) << escape;
  }
}

using Values = std::map<std::string, std::string>;

Values Parse(const std::string& query) {
  Values values;
  EXPECT_EQ(ParseHttpUrlQuery(values, query), 0);
  return values;
}

TEST(ParseHttpUrlQuery, LeavesTheMapAloneForAnEmptyQuery) {
  Values values = {{"kept", "1"}};
  EXPECT_EQ(ParseHttpUrlQuery(values, ""), 0);
  EXPECT_EQ(values, (Values{{"kept", "1"}}));
}

TEST(ParseHttpUrlQuery, AddsToTheMap) {
  Values values = {{"kept", "1"}, {"a", "old"}};
  EXPECT_EQ(ParseHttpUrlQuery(values, "a=new"), 0);
  EXPECT_EQ(values, (Values{{"a", "new"}, {"kept", "1"}}));
}

TEST(ParseHttpUrlQuery, DropsEmptyPieces) {
  EXPECT_EQ(Parse("a=1&&b=2"), (Values{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(Parse("&a=1&"), (Values{{"a", "1"}}));
  EXPECT_EQ(Parse("&&&"), Values{});
}

TEST(ParseHttpUrlQuery, SkipsPiecesWithoutEquals) {
  EXPECT_EQ(Parse("x&b=2"), (Values{{"b", "2"}}));
  EXPECT_EQ(Parse("uploads"), Values{});
}

TEST(ParseHttpUrlQuery, LetsTheLastOfEqualKeysWin) {
  EXPECT_EQ(Parse("a=1&a=2"), (Values{{"a", "2"}}));
}

TEST(ParseHttpUrlQuery, SplitsAtTheFirstEqualsOnly) {
  EXPECT_EQ(Parse("token=abc=="), (Values{{"token", "abc=="}}));
}

TEST(ParseHttpUrlQuery, KeepsEmptyKeysAndValues) {
  EXPECT_EQ(Parse("a=&=b"), (Values{{"", "b"}, {"a", ""}}));
}

TEST(ParseHttpUrlQuery, DecodesKeysAndValuesAfterSplitting) {
  EXPECT_EQ(Parse("a%2Fb=c%26d%3De+f"), (Values{{"a/b", "c&d=e f"}}));
}

TEST(CheckHMACResult, AcceptsTheSignatureItself) {
  EXPECT_TRUE(CheckHMACResult("what do ya want for nothing?", "Jefe", "7/zfauXrL6LSdBbV8YTfnCWafHk="));
}

TEST(CheckHMACResult, RefusesEveryOtherText) {
  const std::string signature = "7/zfauXrL6LSdBbV8YTfnCWafHk=";
  const auto check = [](const std::string& candidate) {
    return CheckHMACResult("what do ya want for nothing?", "Jefe", candidate);
  };
  for (std::size_t i = 0; i < signature.size(); ++i) {
    std::string changed = signature;
    changed[i] = changed[i] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(check(changed)) << "byte " << i;
    EXPECT_FALSE(check(signature.substr(0, i))) << "length " << i;
  }
  EXPECT_FALSE(check(signature + "="));
  EXPECT_FALSE(check(" " + signature));
  EXPECT_FALSE(check(std::string(signature.size(), '\0')));
}

TEST(CheckHMACResult, RefusesAnotherTextOrKey) {
  EXPECT_FALSE(CheckHMACResult("what do ya want for nothing", "Jefe", "7/zfauXrL6LSdBbV8YTfnCWafHk="));
  EXPECT_FALSE(CheckHMACResult("what do ya want for nothing?", "jefe", "7/zfauXrL6LSdBbV8YTfnCWafHk="));
}

}  // namespace
}  // namespace Tansy::CloudStorage
