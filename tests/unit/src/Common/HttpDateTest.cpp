#include "Common/HttpDate.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>
#include <string>
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

}  // namespace
}  // namespace Tansy::CloudStorage
