#include "logging/Text.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace logging::details {
namespace {

std::string Escaped(std::string_view text) {
  std::string out;
  AppendEscaped(out, text);
  return out;
}

TEST(Escaping, LeavesReadableTextAlone) {
  EXPECT_EQ(Escaped(""), "");
  EXPECT_EQ(Escaped("plain ~ text \\ with [%s]"), "plain ~ text \\ with [%s]");
  EXPECT_EQ(Escaped("gr\xC3\xBC\xC3\x9F \xE4\xB8\xAD \xF0\x9F\x98\x80"),
            "gr\xC3\xBC\xC3\x9F \xE4\xB8\xAD \xF0\x9F\x98\x80");
  EXPECT_EQ(Escaped("\xC2\xA0"), "\xC2\xA0");
}

TEST(Escaping, ControlCharacters) {
  EXPECT_EQ(Escaped("a\r\nb\tc"), "a\\r\\nb\\tc");
  EXPECT_EQ(Escaped(std::string_view("\0\x01\x1b\x7f", 4)), "\\x00\\x01\\x1b\\x7f");
  for (char c = 0; c < 0x20; ++c) {
    const std::string escaped = Escaped(std::string_view(&c, 1));
    EXPECT_EQ(escaped[0], '\\') << int{c};
  }
}

TEST(Escaping, ControlCharactersOfMoreThanOneByte) {
  EXPECT_EQ(Escaped("\xC2\x85"), "\\xc2\\x85");
  EXPECT_EQ(Escaped("\xC2\x9B"), "\\xc2\\x9b");
  EXPECT_EQ(Escaped("\xE2\x80\xA8\xE2\x80\xA9"), "\\xe2\\x80\\xa8\\xe2\\x80\\xa9");
}

TEST(Escaping, BytesThatAreNoUtf8) {
  EXPECT_EQ(Escaped("\x80"), "\\x80");
  EXPECT_EQ(Escaped("\x9B[31m"), "\\x9b[31m");
  EXPECT_EQ(Escaped("a\xC3"), "a\\xc3");
  EXPECT_EQ(Escaped("\xE4\xB8z"), "\\xe4\\xb8z");
  EXPECT_EQ(Escaped("\xC0\x8A"), "\\xc0\\x8a");                    // an overlong line end
  EXPECT_EQ(Escaped("\xE0\x80\x8A"), "\\xe0\\x80\\x8a");           // another
  EXPECT_EQ(Escaped("\xF0\x80\x80\x8A"), "\\xf0\\x80\\x80\\x8a");  // and another
  EXPECT_EQ(Escaped("\xED\xA0\x80"), "\\xed\\xa0\\x80");           // a surrogate
  EXPECT_EQ(Escaped("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // beyond the last character
  EXPECT_EQ(Escaped("\xFF\xFE"), "\\xff\\xfe");
}

TEST(Cutting, KeepsWholeCharacters) {
  EXPECT_EQ(CutAtCharacter("abc", 3), "abc");
  EXPECT_EQ(CutAtCharacter("abcd", 3), "abc");
  EXPECT_EQ(CutAtCharacter("ab\xE4\xB8\xAD", 4), "ab");
  EXPECT_EQ(CutAtCharacter("ab\xE4\xB8\xAD", 3), "ab");
  EXPECT_EQ(CutAtCharacter("ab\xE4\xB8\xAD", 5), "ab\xE4\xB8\xAD");
  EXPECT_EQ(CutAtCharacter("ab\xE4\xB8\xAD"
                           "c",
                           5),
            "ab\xE4\xB8\xAD");
}

TEST(Cutting, BytesWithoutAnyBeginningAreCutWhereTheyStand) {
  const std::string stray(20, '\x80');
  EXPECT_EQ(CutAtCharacter(stray, 10).size(), 10u);
}

TEST(Masking, EveryOccurrence) {
  EXPECT_EQ(Masked("key=S3cret and S3cretS3cret.", {"S3cret"}, false), "key=*** and ******.");
  EXPECT_EQ(Masked("nothing here", {"S3cret"}, false), "nothing here");
  EXPECT_EQ(Masked("S3cret", {}, false), "S3cret");
  EXPECT_EQ(Masked("S3cret", {"S3cret"}, false), "***");
}

TEST(Masking, OverlappingOccurrencesLeaveNothingBehind) {
  EXPECT_EQ(Masked("xyabcdz", {"xyab", "abcd"}, false), "***z");
  EXPECT_EQ(Masked("-aaa-", {"aa"}, false), "-***-");
  EXPECT_EQ(Masked("-abcdef-", {"abc", "abcdef"}, false), "-***-");
  EXPECT_EQ(Masked("-abcdef-", {"abcdef", "abc"}, false), "-***-");
}

TEST(Masking, ABeginningOfASecretAtTheCut) {
  EXPECT_EQ(Masked("key=S3cr...", {"S3cret"}, true), "key=***...");
  EXPECT_EQ(Masked("key=S...", {"S3cret"}, true), "key=***...");
  EXPECT_EQ(Masked("key=S3cr...", {"S3cret"}, false), "key=S3cr...");
  EXPECT_EQ(Masked("S3cret S3...", {"S3cret"}, true), "*** ***...");
  EXPECT_EQ(Masked("key=x...", {"S3cret"}, true), "key=x...");
}

}  // namespace
}  // namespace logging::details
