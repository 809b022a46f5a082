#include "TansyBase/HttpDate.h"

#include <gtest/gtest.h>

#include <ctime>
#include <limits>

namespace TansyBase {
namespace {

constexpr std::time_t kTime = 1793693109;

TEST(HttpDate, PadsTheDayAsAsked) {
  EXPECT_EQ(HttpDate::Format(kTime, ' '), "Tue,  3 Nov 2026 08:05:09 GMT");
  EXPECT_EQ(HttpDate::Format(kTime, '0'), "Tue, 03 Nov 2026 08:05:09 GMT");
  EXPECT_EQ(HttpDate::Format(951782400, '0'), "Tue, 29 Feb 2000 00:00:00 GMT");
  EXPECT_EQ(HttpDate::Format(-1, '0'), "Wed, 31 Dec 1969 23:59:59 GMT");
}

TEST(HttpDate, IsEmptyForATimeThatNoCalendarHolds) {
  EXPECT_EQ(HttpDate::Format(std::numeric_limits<std::time_t>::max(), ' '), "");
  EXPECT_EQ(HttpDate::Format(std::numeric_limits<std::time_t>::min(), ' '), "");
}

TEST(HttpDate, ReadsWhatItWrites) {
  for (const std::time_t time : {std::time_t{0}, std::time_t{951782400}, kTime, std::time_t{253402300799}}) {
    EXPECT_EQ(HttpDate::Parse(HttpDate::Format(time, ' ')), time);
    EXPECT_EQ(HttpDate::Parse(HttpDate::Format(time, '0')), time);
  }
  EXPECT_EQ(HttpDate::Parse("Tue, 3 Nov 2026 08:05:09 GMT"), kTime);
}

TEST(HttpDate, RefusesEverythingElse) {
  for (const char* text :
       {"", "now", "Tue, 03 Nov 2026 08:05:09", "Tue, 03 Nov 2026 08:05:09 CET", "Tue, 03 Nov 2026 08:05:09 GMT ",
        "Tue, 31 Feb 2026 08:05:09 GMT", "Tue, 03 anF 2026 08:05:09 GMT", "Tue, 03 N 2026 08:05:09 GMT",
        "Tue, 03 Nov 2026 24:05:09 GMT", "Tue, 03 Nov 2026 08:05:61 GMT", "2026-11-03 08:05:09",
        "Wed, 31 Dec 1969 23:59:59 GMT", "Tue, 03 Nov 2026 08:05:09 GMT and a text that goes on and on"}) {
    EXPECT_EQ(HttpDate::Parse(text), -1) << text;
  }
}

}  // namespace
}  // namespace TansyBase
