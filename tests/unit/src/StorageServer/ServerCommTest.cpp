#include "StorageServer/ServerComm.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "fakes/ManualClock.h"

namespace Tansy::CloudStorage {
namespace {

class HttpDate : public testing::Test {
 protected:
  std::string At(std::time_t time) {
    clock_.Set(time);
    return FormatHttpDate();
  }

  Tests::CManualClock clock_;
};

TEST_F(HttpDate, PadsTheDayWithABlankAndTheTimeWithZeros) {
  EXPECT_EQ(At(1793693109), "Tue,  3 Nov 2026 08:05:09 GMT");
}

TEST_F(HttpDate, LeavesADayOfTwoDigitsAlone) {
  EXPECT_EQ(At(784111777), "Sun,  6 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(At(784975777), "Wed, 16 Nov 1994 08:49:37 GMT");
}

TEST_F(HttpDate, NamesEveryWeekday) {
  const std::time_t sunday = 1793491200;  // 1 November 2026, 00:00:00
  const std::vector<std::string> names = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto day = static_cast<std::time_t>(i);
    EXPECT_EQ(At(sunday + day * 86400), names[i] + ",  " + std::to_string(i + 1) + " Nov 2026 00:00:00 GMT");
  }
}

TEST_F(HttpDate, NamesEveryMonth) {
  const std::vector<std::string> expected = {
      "Thu,  1 Jan 2026 00:00:00 GMT", "Sun,  1 Feb 2026 00:00:00 GMT", "Sun,  1 Mar 2026 00:00:00 GMT",
      "Wed,  1 Apr 2026 00:00:00 GMT", "Fri,  1 May 2026 00:00:00 GMT", "Mon,  1 Jun 2026 00:00:00 GMT",
      "Wed,  1 Jul 2026 00:00:00 GMT", "Sat,  1 Aug 2026 00:00:00 GMT", "Tue,  1 Sep 2026 00:00:00 GMT",
      "Thu,  1 Oct 2026 00:00:00 GMT", "Sun,  1 Nov 2026 00:00:00 GMT", "Tue,  1 Dec 2026 00:00:00 GMT"};
  const std::vector<int> days_before = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(At(1767225600 + std::time_t{days_before[i]} * 86400), expected[i]);
  }
}

TEST_F(HttpDate, KnowsLeapYearsAndTheEndsOfTheDay) {
  EXPECT_EQ(At(951782400), "Tue, 29 Feb 2000 00:00:00 GMT");
  EXPECT_EQ(At(4107542399), "Sun, 28 Feb 2100 23:59:59 GMT");
  EXPECT_EQ(At(4107542400), "Mon,  1 Mar 2100 00:00:00 GMT");
}

TEST_F(HttpDate, WorksBeforeTheEpoch) {
  EXPECT_EQ(At(0), "Thu,  1 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(At(-1), "Wed, 31 Dec 1969 23:59:59 GMT");
}

TEST_F(HttpDate, IsEmptyForATimeThatNoCalendarHolds) {
  EXPECT_EQ(At(std::numeric_limits<std::time_t>::max()), "");
  EXPECT_EQ(At(std::numeric_limits<std::time_t>::min()), "");
}

TEST_F(HttpDate, ReadsWhatItWrites) {
  for (const std::time_t time : {std::time_t{0}, std::time_t{951782400}, std::time_t{1793693109},
                                 std::time_t{4107542399}, std::time_t{253402300799}}) {
    EXPECT_EQ(ParseHttpDate(At(time)), time) << At(time);
  }
}

TEST(ParseHttpDate, TakesEveryFormOfTheDay) {
  for (const char* text :
       {"Tue,  3 Nov 2026 08:05:09 GMT", "Tue, 03 Nov 2026 08:05:09 GMT", "Tue, 3 Nov 2026 08:05:09 GMT"}) {
    EXPECT_EQ(ParseHttpDate(text), 1793693109) << text;
  }
}

TEST(ParseHttpDate, RefusesEverythingElse) {
  for (const char* text :
       {"", "now", "Tue, 03 Nov 2026", "Tue, 03 Nov 2026 08:05:09", "Tue, 03 Nov 2026 08:05:09 CET",
        "Tue, 03 Nov 2026 08:05:09 GMT ", "Tue, 31 Feb 2026 08:05:09 GMT", "Tue, 03 Abc 2026 08:05:09 GMT",
        "Tue, 03 Nov 2026 24:05:09 GMT", "Tue, 03 Nov 2026 08:60:09 GMT", "Tue, 03 Nov 2026 08:05:61 GMT",
        "Tue, 00 Nov 2026 08:05:09 GMT", "2026-11-03 08:05:09", "Wed, 31 Dec 1969 23:59:59 GMT",
        "Tue, 03 Nov 2026 08:05:09 GMT and a text that goes on for longer than any date does"}) {
    EXPECT_EQ(ParseHttpDate(text), -1) << text;
  }
}

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
