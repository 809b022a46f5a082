#include "TansyProto/TextRules.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace TansyProto {
namespace {

using std::string_literals::operator""s;
using std::string_view_literals::operator""sv;

constexpr const char* kReplacement = "\xEF\xBF\xBD";

std::string Encode(char32_t c) {
  std::string text;
  const auto add = [&text](char32_t byte) { text += static_cast<char>(byte); };
  if (c < 0x80) {
    add(c);
  } else if (c < 0x800) {
    add(0xC0 | (c >> 6)), add(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    add(0xE0 | (c >> 12)), add(0x80 | ((c >> 6) & 0x3F)), add(0x80 | (c & 0x3F));
  } else {
    add(0xF0 | (c >> 18)), add(0x80 | ((c >> 12) & 0x3F)), add(0x80 | ((c >> 6) & 0x3F)), add(0x80 | (c & 0x3F));
  }
  return text;
}

TEST(TextRulesTest, EveryCharacterIsDecoded) {
  for (char32_t c = 0; c <= 0x10FFFF; ++c) {
    const std::string encoded = Encode(c);
    std::string_view text = encoded;
    char32_t decoded = 0;
    const bool is_surrogate = c >= 0xD800 && c <= 0xDFFF;
    ASSERT_EQ(TakeUtf8(text, decoded), !is_surrogate) << static_cast<std::uint32_t>(c);
    if (!is_surrogate) {
      ASSERT_EQ(decoded, c);
      ASSERT_TRUE(text.empty());
    }
  }
}

TEST(TextRulesTest, MalformedBytesAreReplacedOneByOne) {
  EXPECT_EQ(MakeCarriable("a\xFFz"sv, false), "a"s + kReplacement + "z");
  EXPECT_EQ(MakeCarriable("\xC0\x80"sv, false), ""s + kReplacement + kReplacement);
  EXPECT_EQ(MakeCarriable("\xE4\xB8"sv, false), ""s + kReplacement + kReplacement);
  EXPECT_EQ(MakeCarriable("\xE4\xB8\xAD\x80"sv, false), "\xE4\xB8\xAD"s + kReplacement);
  EXPECT_EQ(MakeCarriable("\xF8\x88\x80\x80\x80"sv, false).size(), 15U);
  EXPECT_EQ(MakeCarriable("\xED\xA0\x80"sv, false).size(), 9U);
}

TEST(TextRulesTest, ControlCharactersAreReplacedForXmlOnly) {
  const std::string text = "a\0b\x01\t\n\r\x1F\x7F"s;
  EXPECT_EQ(MakeCarriable(text, false), text);
  EXPECT_EQ(MakeCarriable(text, true), "a"s + kReplacement + "b" + kReplacement + "\t\n\r" + kReplacement + "\x7F");
  EXPECT_EQ(MakeCarriable("\xEF\xBF\xBE\xEF\xBF\xBF"sv, true), ""s + kReplacement + kReplacement);
}

TEST(TextRulesTest, CarriableTextIsLeftAlone) {
  for (const auto text : {""sv, "plain"sv, "\xE4\xB8\xAD\xE6\x96\x87"sv, "\xF0\x9F\x98\x80"sv, "<&>'\""sv}) {
    EXPECT_EQ(MakeCarriable(text, true), text);
    EXPECT_TRUE(IsXmlText(text));
  }
}

struct IntegerCase {
  std::string_view text;
  bool is_integer;
  std::int64_t value;
};

class ParseIntegerTest : public testing::TestWithParam<IntegerCase> {};

TEST_P(ParseIntegerTest, ReadsWholeDecimalNumbersOnly) {
  std::int64_t value = 42;
  EXPECT_EQ(ParseInteger(GetParam().text, value), GetParam().is_integer) << GetParam().text;
  EXPECT_EQ(value, GetParam().value) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ParseIntegerTest,
    testing::Values(IntegerCase{"0", true, 0}, IntegerCase{"-0", true, 0}, IntegerCase{"007", true, 7},
                    IntegerCase{"+5", true, 5}, IntegerCase{" \r\n\t12 ", true, 12}, IntegerCase{"-1", true, -1},
                    IntegerCase{"9223372036854775807", true, INT64_MAX},
                    IntegerCase{"-9223372036854775808", true, INT64_MIN}, IntegerCase{"9223372036854775808", false, 42},
                    IntegerCase{"-9223372036854775809", false, 42}, IntegerCase{"", false, 42},
                    IntegerCase{" ", false, 42}, IntegerCase{"-", false, 42}, IntegerCase{"+", false, 42},
                    IntegerCase{"+-1", false, 42}, IntegerCase{"--1", false, 42}, IntegerCase{"1 2", false, 42},
                    IntegerCase{"1.0", false, 42}, IntegerCase{"1e3", false, 42}, IntegerCase{"0x10", false, 42},
                    IntegerCase{"ten", false, 42}, IntegerCase{"5x", false, 42}, IntegerCase{"5\0"sv, false, 42}));

}  // namespace
}  // namespace TansyProto
