#include "RateLimit.h"

#include <gtest/gtest.h>

#include <chrono>

namespace Tansy::Cli {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(RateLimitTest, LetsBytesPassAtTheRate) {
  CRateLimit limit(1000);
  const CRateLimit::Clock::time_point begin{seconds(100)};
  EXPECT_EQ(limit.Take(500, begin), begin) << "the first bytes need not wait";
  EXPECT_EQ(limit.Take(1000, begin), begin + milliseconds(500));
  EXPECT_EQ(limit.Take(1, begin), begin + milliseconds(1500));
}

TEST(RateLimitTest, DoesNotMakeUpForAnIdleTime) {
  CRateLimit limit(1000);
  const CRateLimit::Clock::time_point begin{seconds(100)};
  limit.Take(1000, begin);
  const auto later = begin + seconds(60);
  EXPECT_EQ(limit.Take(1000, later), later);
  EXPECT_EQ(limit.Take(1000, later), later + seconds(1));
}

}  // namespace
}  // namespace Tansy::Cli
