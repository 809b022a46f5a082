#include "Output.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "Progress.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Cli {
namespace {

TEST(OutputTest, WritesOneJsonObject) {
  EXPECT_EQ(CJsonLine().Text(), "{}");
  EXPECT_EQ(CJsonLine()
                .Add("text", "a\"b\\c\n")
                .Add("signed", std::int64_t{-1})
                .Add("unsigned", std::numeric_limits<std::uint64_t>::max())
                .Add("flag", true)
                .AddSeconds("seconds", 1.23456)
                .Text(),
            "{\"text\": \"a\\\"b\\\\c\\u000a\", \"signed\": -1, \"unsigned\": 18446744073709551615, \"flag\": true, "
            "\"seconds\": 1.235}");
}

TEST(OutputTest, WritesValidJsonWhateverTheBytes) {
  std::string bytes;
  for (int i = 1; i < 256; ++i) {
    bytes.push_back(static_cast<char>(i));
  }
  for (const std::string& text : {bytes, std::string("\xc3\xa4\xe6\x96\x87\xf0\x9f\x98\x80"),
                                  std::string("\xed\xa0\x80"), std::string("\xc0\xaf"), std::string("\xf4\x90\x80\x80"),
                                  std::string("cut \xe6\x96"), std::string("a\0b", 3)}) {
    TansyProto::CRapidJsonProto json;
    EXPECT_TRUE(json.Parse("{\"text\": " + JsonString(text) + "}")) << JsonString(text);
  }
  EXPECT_EQ(JsonString("\xc3\xa4\xf0\x9f\x98\x80"), "\"\xc3\xa4\xf0\x9f\x98\x80\"");
  EXPECT_EQ(JsonString("\xff"), "\"\\ufffd\"");
}

TEST(OutputTest, FormatsBytes) {
  EXPECT_EQ(FormatBytes(0), "0 B");
  EXPECT_EQ(FormatBytes(1023), "1023 B");
  EXPECT_EQ(FormatBytes(1024), "1.0 KiB");
  EXPECT_EQ(FormatBytes(1536), "1.5 KiB");
  EXPECT_EQ(FormatBytes(1048575), "1.0 MiB");
  EXPECT_EQ(FormatBytes(std::uint64_t{5} << 30), "5.0 GiB");
  EXPECT_EQ(FormatBytes(std::numeric_limits<std::uint64_t>::max()), "16.0 EiB");
}

TEST(OutputTest, FormatsDurations) {
  EXPECT_EQ(FormatDuration(-1), "0:00");
  EXPECT_EQ(FormatDuration(7.9), "0:07");
  EXPECT_EQ(FormatDuration(750), "12:30");
  EXPECT_EQ(FormatDuration(11100), "3:05:00");
  EXPECT_EQ(FormatDuration(1e300), "99:59:59");
}

TEST(OutputTest, LeavesNothingForATerminalToActOn) {
  EXPECT_EQ(Printable("plain \xc3\xa4"), "plain \xc3\xa4");
  EXPECT_EQ(Printable("\x1b[31mred\n\x7f"), "?[31mred??");
  EXPECT_EQ(Printable("\xc2\x9b"
                      "31m"),
            "?31m");
  EXPECT_EQ(Printable("\xff"), "?");
}

ProgressState State(std::uint64_t bytes, std::uint64_t total) {
  ProgressState state;
  state.what = "get";
  state.name = "film.mp4";
  state.bytes = bytes;
  state.total = total;
  state.seconds = 2;
  return state;
}

TEST(ProgressTest, ShowsBarRateAndTimeLeft) {
  EXPECT_EQ(RenderProgress(State(50 * 1048576, 100 * 1048576), 79),
            "get film.mp4  [###############---------------]   50%  25.0 MiB/s  0:02 left");
}

TEST(ProgressTest, CountsSeveralFiles) {
  ProgressState state = State(0, 100);
  state.name = "";
  state.files = 10;
  state.done = 3;
  EXPECT_EQ(RenderProgress(state, 79),
            std::string("get 3 of 10 files") + "  [------------------------------]    0%  0 B/s");
}

TEST(ProgressTest, DoesWithoutATotal) {
  EXPECT_EQ(RenderProgress(State(2097152, 0), 79), "get film.mp4  2.0 MiB  1.0 MiB/s");
}

TEST(ProgressTest, FitsTheTerminal) {
  for (std::size_t width = 1; width < 120; ++width) {
    EXPECT_LE(RenderProgress(State(50, 100), width).size(), width);
  }
  EXPECT_EQ(RenderProgress(State(50, 100), 40).find('['), std::string::npos) << "no room for a bar";
}

TEST(ProgressTest, NeverShowsMoreThanAll) {
  EXPECT_NE(RenderProgress(State(200, 100), 79).find("100%"), std::string::npos);
}

}  // namespace
}  // namespace Tansy::Cli
