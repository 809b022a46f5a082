#include "TansyBase/StringUtil.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace TansyBase {
namespace {

TEST(StrFmt, RendersAnyLength) {
  EXPECT_EQ(StringUtil::str_fmt("%s-%d", "a", 5), "a-5");
  EXPECT_EQ(StringUtil::str_fmt("%s", ""), "");
  for (const std::size_t length : {510u, 511u, 512u, 513u, 100000u}) {
    const std::string text(length, 'x');
    EXPECT_EQ(StringUtil::str_fmt("%s", text.c_str()), text);
    EXPECT_EQ(StringUtil::str_fmt("%s%d", text.c_str(), 7), text + "7");
  }
}

TEST(StringReplace, ReplacesEveryOccurrenceOnce) {
  EXPECT_EQ(StringUtil::StringReplace("a.b.c", ".", "::"), "a::b::c");
  EXPECT_EQ(StringUtil::StringReplace("aaa", "aa", "b"), "ba");
  EXPECT_EQ(StringUtil::StringReplace("aa", "a", "aa"), "aaaa");
  EXPECT_EQ(StringUtil::StringReplace("abc", "b", ""), "ac");
  EXPECT_EQ(StringUtil::StringReplace("abc", "", "x"), "abc");
  EXPECT_EQ(StringUtil::StringReplace("", "a", "x"), "");
  EXPECT_EQ(StringUtil::StringReplace("abc", "abcd", "x"), "abc");
  EXPECT_EQ(StringUtil::StringReplace("abc", "abc", "x"), "x");
}

TEST(PercentDecode, TurnsCodesIntoBytes) {
  std::string decoded = "before";
  EXPECT_TRUE(StringUtil::PercentDecode("", decoded));
  EXPECT_EQ(decoded, "");
  EXPECT_TRUE(StringUtil::PercentDecode("a%41%2f%2Fb+c%25", decoded));
  EXPECT_EQ(decoded, "aA//b+c%");
  EXPECT_TRUE(StringUtil::PercentDecode("%00%fF", decoded));
  EXPECT_EQ(decoded, std::string("\0\xff", 2));
}

TEST(PercentDecode, RefusesWhatIsNoCode) {
  std::string decoded;
  for (const char* text : {"%", "a%4", "%%41", "%g1", "%1g", "%-1", "%+1", "% 1", "%0x41"}) {
    EXPECT_FALSE(StringUtil::PercentDecode(text, decoded)) << text;
  }
}

TEST(StringPreventSQLInjection, DoublesQuotesAndDropsNul) {
  EXPECT_EQ(StringUtil::StringPreventSQLInjection("it's"), "it''s");
  EXPECT_EQ(StringUtil::StringPreventSQLInjection("''"), "''''");
  EXPECT_EQ(StringUtil::StringPreventSQLInjection("a\\'; DROP TABLE x; --"), "a\\''; DROP TABLE x; --");
  EXPECT_EQ(StringUtil::StringPreventSQLInjection(std::string_view("a\0'b", 4)), "a''b");
  EXPECT_EQ(StringUtil::StringPreventSQLInjection("plain \"text\" %_"), "plain \"text\" %_");
}

TEST(UTF8ToLocal, IsTheTextItselfHere) {
  EXPECT_EQ(StringUtil::UTF8ToLocal("gr\xC3\xBC\xC3\x9F"), "gr\xC3\xBC\xC3\x9F");
}

TEST(UTF8ToWide, EveryLengthOfCharacter) {
  EXPECT_EQ(StringUtil::UTF8ToWide(""), L"");
  EXPECT_EQ(StringUtil::UTF8ToWide("a\xC3\xBC\xE4\xB8\xAD"), L"a\u00fc\u4e2d");
  EXPECT_EQ(StringUtil::UTF8ToWide("\xF0\x9F\x98\x80"), L"\U0001F600");
  EXPECT_EQ(StringUtil::UTF8ToWide("\xF4\x8F\xBF\xBF"), L"\U0010FFFF");
  EXPECT_EQ(StringUtil::UTF8ToWide(std::string_view("a\0b", 3)), std::wstring(L"a\0b", 3));
}

TEST(UTF8ToWide, MalformedSequencesBecomeReplacements) {
  EXPECT_EQ(StringUtil::UTF8ToWide("a\x80z"), L"a\uFFFDz");
  EXPECT_EQ(StringUtil::UTF8ToWide("\xC3"), L"\uFFFD");
  EXPECT_EQ(StringUtil::UTF8ToWide("\xE4\xB8z"), L"\uFFFDz");
  EXPECT_EQ(StringUtil::UTF8ToWide("\xC0\xAF"), L"\uFFFD\uFFFD");
  EXPECT_EQ(StringUtil::UTF8ToWide("\xE0\x80\xAF"), L"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(StringUtil::UTF8ToWide("\xED\xA0\x80"), L"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(StringUtil::UTF8ToWide("\xF4\x90\x80\x80"), L"\uFFFD\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(StringUtil::UTF8ToWide("\xF8\x88\x80\x80\x80"), L"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD");
}

TEST(UTF8ToGBK, KnownBytes) {
  EXPECT_EQ(StringUtil::UTF8ToGBK(""), "");
  EXPECT_EQ(StringUtil::UTF8ToGBK("plain"), "plain");
  EXPECT_EQ(StringUtil::UTF8ToGBK("中文"), "\xD6\xD0\xCE\xC4");
  EXPECT_EQ(StringUtil::UTF8ToGBK("a中，（）b"),
            "a\xD6\xD0\xA3\xAC\xA3\xA8\xA3\xA9"
            "b");
  EXPECT_EQ(StringUtil::UTF8ToGBK("阈"), "\xE3\xD0");
}

TEST(UTF8ToGBK, WhatGbkLacksOrNobodyCanReadBecomesAQuestionMark) {
  EXPECT_EQ(StringUtil::UTF8ToGBK("a\xF0\x9F\x98\x80z"), "a?z");
  EXPECT_EQ(StringUtil::UTF8ToGBK("中\x80文"), "\xD6\xD0?\xCE\xC4");
  EXPECT_EQ(StringUtil::UTF8ToGBK("\xE4\xB8"), "?");
}

TEST(UTF8ToGBK, AnyThreadAtAnyTime) {
  std::vector<std::thread> threads;
  std::vector<std::string> results(4);
  for (auto& result : results) {
    threads.emplace_back([&result] {
      for (int i = 0; i < 200; ++i) {
        result = StringUtil::UTF8ToGBK("服务器内部异常");
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  for (const auto& result : results) {
    EXPECT_EQ(result, "\xB7\xFE\xCE\xF1\xC6\xF7\xC4\xDA\xB2\xBF\xD2\xEC\xB3\xA3");
  }
}

}  // namespace
}  // namespace TansyBase
