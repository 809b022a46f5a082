#include "Duration.h"

#include <gtest/gtest.h>

#include "Failure.h"

namespace Tansy::Cli {
namespace {

constexpr std::int64_t kNow = 1793692800;  // 2026-11-03 08:00:00

TEST(DurationTest, IsANumberWithItsUnit) {
  EXPECT_EQ(ParseDuration("90s"), 90);
  EXPECT_EQ(ParseDuration("15m"), 900);
  EXPECT_EQ(ParseDuration("2h"), 7200);
  EXPECT_EQ(ParseDuration("7d"), 604800);
  EXPECT_EQ(ParseDuration("4w"), 2419200);
  for (const char* text : {"", "7", "d", "0d", "-1d", "1.5h", "7 d", "7days", "99999999999999999999s", "101y"}) {
    EXPECT_THROW(ParseDuration(text), CFailure) << text;
  }
}

TEST(DurationTest, EndsAfterATimeOrAtTheBeginningOfADay) {
  EXPECT_EQ(ParseEnd("7d", kNow), kNow + 604800);
  EXPECT_EQ(ParseEnd("2026-11-04", kNow), kNow + 16 * 3600);
  EXPECT_EQ(ParseEnd("2028-02-29", kNow), 1835395200);
  for (const char* text : {"2026-11-03", "2020-01-01", "2027-02-29", "2027-13-01", "2027-00-10", "2027-1-1",
                           "27-01-011", "2027-01-0a", "2027--1-01", "-", "2027-01-31 "}) {
    EXPECT_THROW(ParseEnd(text, kNow), CFailure) << text;
  }
}

}  // namespace
}  // namespace Tansy::Cli
