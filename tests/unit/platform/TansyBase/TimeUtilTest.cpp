#include "TansyBase/TimeUtil.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "fakes/ManualClock.h"

namespace TansyBase {
namespace {

using Tansy::Tests::CManualClock;

TEST(TimeUtil, WritesUtcWhateverTheTimeZone) {
  setenv("TZ", "Asia/Shanghai", 1);
  tzset();
  EXPECT_EQ(TimeUtil::TimeT2StrUTCDatetime(1793693109), "2026-11-03 08:05:09");
  EXPECT_EQ(TimeUtil::TimeT2StrUTCTimeStamp(1793693109), "2026-11-03 08:05:09.000");
  EXPECT_EQ(TimeUtil::StrUTCDatetime2TimeT("2026-11-03 08:05:09"), 1793693109);
  unsetenv("TZ");
  tzset();
}

TEST(TimeUtil, WritesTheEdgesOfTheCalendar) {
  EXPECT_EQ(TimeUtil::TimeT2StrUTCDatetime(0), "1970-01-01 00:00:00");
  EXPECT_EQ(TimeUtil::TimeT2StrUTCDatetime(-1), "1969-12-31 23:59:59");
  EXPECT_EQ(TimeUtil::TimeT2StrUTCDatetime(951782400), "2000-02-29 00:00:00");
  EXPECT_EQ(TimeUtil::TimeT2StrUTCDatetime(4107542399), "2100-02-28 23:59:59");
  EXPECT_EQ(TimeUtil::TimeT2StrUTCDatetime(4107542400), "2100-03-01 00:00:00");
  EXPECT_EQ(TimeUtil::TimeT2StrUTCDatetime(253402300799), "9999-12-31 23:59:59");
}

TEST(TimeUtil, ATimeBeyondFourDigitsOfYearHasNoText) {
  EXPECT_EQ(TimeUtil::TimeT2StrUTCDatetime(253402300800), "");
  EXPECT_EQ(TimeUtil::TimeT2StrUTCTimeStamp(253402300800), "");
  EXPECT_EQ(TimeUtil::TimeT2StrUTCDatetime(-62167219201), "");
  EXPECT_EQ(TimeUtil::TimeT2StrUTCDatetime(-62167219200), "0000-01-01 00:00:00");
}

TEST(TimeUtil, ReadsBothFormsAndAnyFraction) {
  EXPECT_EQ(TimeUtil::StrUTCDatetime2TimeT("2026-11-03 08:05:09.000"), 1793693109);
  EXPECT_EQ(TimeUtil::StrUTCDatetime2TimeT("2026-11-03 08:05:09.999999"), 1793693109);
  EXPECT_EQ(TimeUtil::StrUTCDatetime2TimeT("1970-01-01 00:00:00"), 0);
}

TEST(TimeUtil, AgreesWithTheSystemOnEveryDayOfACentury) {
  for (std::time_t time = 0; time < 3155760000; time += 86400 - 61) {
    std::tm parts{};
    gmtime_r(&time, &parts);
    char expected[32];
    std::strftime(expected, sizeof expected, "%Y-%m-%d %H:%M:%S", &parts);
    ASSERT_EQ(TimeUtil::TimeT2StrUTCDatetime(time), expected);
    ASSERT_EQ(TimeUtil::StrUTCDatetime2TimeT(expected), time);
  }
}

TEST(TimeUtil, RefusesOtherTexts) {
  for (const char* text : {"",
                           "2026-11-03",
                           "2026-11-03T08:05:09",
                           "2026-11-03 08:05",
                           "2026-11-03 08:05:0",
                           "2026-11-03 08:05:09.",
                           "2026-11-03 08:05:09Z",
                           "2026-11-03 08:05:09.12x",
                           "2026-13-03 08:05:09",
                           "2026-00-03 08:05:09",
                           "2026-02-29 08:05:09",
                           "2026-11-31 08:05:09",
                           "2026-11-00 08:05:09",
                           "2026-11-03 24:00:00",
                           "2026-11-03 08:60:09",
                           "2026-11-03 08:05:60",
                           "2026-1x-03 08:05:09",
                           " 2026-11-03 08:05:09",
                           "2026-11-03 08:05:-9",
                           "2026-11-03 08:05:09.1234567890",
                           "null"}) {
    EXPECT_EQ(TimeUtil::StrUTCDatetime2TimeT(text), -1) << text;
  }
}

TEST(TimeUtil, SettingTheTimeOfDayDoesNotMoveTheUptime) {
  const std::int64_t before = TimeUtil::Uptime();
  {
    CManualClock clock;
    const std::int64_t zero = TimeUtil::Uptime();
    clock.Set(CManualClock::kDefaultTime + 1000000);
    EXPECT_EQ(TimeUtil::Uptime(), zero);
    clock.Advance(61);
    EXPECT_EQ(TimeUtil::Uptime(), zero + 61);
    EXPECT_EQ(TimeUtil::Now(), CManualClock::kDefaultTime + 1000061);
  }
  const std::int64_t after = TimeUtil::Uptime();
  EXPECT_GE(after, before);
  EXPECT_LE(after, before + 600);
}

TEST(TimeUtil, NowIsTheSystemsTimeUnlessReplaced) {
  const std::time_t before = std::time(nullptr);
  const std::time_t now = TimeUtil::Now();
  EXPECT_GE(now, before);
  EXPECT_LE(now, std::time(nullptr));
  {
    CManualClock clock;
    EXPECT_EQ(TimeUtil::Now(), CManualClock::kDefaultTime);
    clock.Advance(61);
    EXPECT_EQ(TimeUtil::Now(), CManualClock::kDefaultTime + 61);
    clock.Set(5);
    EXPECT_EQ(TimeUtil::Now(), 5);
    EXPECT_EQ(clock.Now(), 5);
  }
  EXPECT_GE(TimeUtil::Now(), before);
}

}  // namespace
}  // namespace TansyBase
