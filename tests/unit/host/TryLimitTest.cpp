#include "TryLimit.h"

#include <gtest/gtest.h>

#include <string>

#include "fakes/ManualClock.h"

namespace Tansy::Host {
namespace {

TEST(TryLimitTest, LetsABurstPassAndThenOneAfterAnother) {
  Tests::CManualClock clock;
  CTryLimit limit({3, 6000}, {1000, 1});
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(limit.Take("192.0.2.1"), 0) << i;
  }
  EXPECT_EQ(limit.Take("192.0.2.1"), 6);
  EXPECT_EQ(limit.Take("192.0.2.1"), 6) << "a try that was refused does not count";
  EXPECT_EQ(limit.Take("192.0.2.2"), 0) << "another address";
  clock.Advance(5);
  EXPECT_EQ(limit.Take("192.0.2.1"), 1);
  clock.Advance(1);
  EXPECT_EQ(limit.Take("192.0.2.1"), 0);
  EXPECT_EQ(limit.Take("192.0.2.1"), 6);
  clock.Advance(3600);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(limit.Take("192.0.2.1"), 0) << "an hour does not save up more than a burst";
  }
  EXPECT_EQ(limit.Take("192.0.2.1"), 6);
}

TEST(TryLimitTest, LimitsAllTogether) {
  Tests::CManualClock clock;
  CTryLimit limit({10, 1000}, {20, 500});
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(limit.Take("192.0.2." + std::to_string(i)), 0) << i;
  }
  EXPECT_EQ(limit.Take("198.51.100.1"), 1);
  clock.Advance(1);
  EXPECT_EQ(limit.Take("198.51.100.1"), 0);
  EXPECT_EQ(limit.Take("198.51.100.2"), 0);
  EXPECT_EQ(limit.Take("198.51.100.3"), 1);
}

TEST(TryLimitTest, ATryThatWasNoHarmIsGivenBack) {
  Tests::CManualClock clock;
  CTryLimit limit({2, 6000}, {2, 6000});
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(limit.Take("192.0.2.1"), 0) << i;
    limit.GiveBack("192.0.2.1");
  }
}

TEST(TryLimitTest, TakesNoMoreMemoryThanForSomeThousandAddresses) {
  Tests::CManualClock clock;
  CTryLimit limit({2, 6000}, {1'000'000, 1});
  for (int i = 0; i < 100'000; ++i) {
    limit.Take("2001:db8:0:" + std::to_string(i) + "::1");
  }
  EXPECT_EQ(limit.AddressCount(), CTryLimit::kMostAddresses);
  EXPECT_GT(limit.Take("192.0.2.77"), 0) << "those without room are counted together";
  clock.Advance(100'000);
  EXPECT_EQ(limit.Take("192.0.2.77"), 0) << "the others are forgotten by now";
  EXPECT_EQ(limit.AddressCount(), 1U);
}

TEST(TryLimitTest, CountsANetworkOfIpv6AsOneAddress) {
  EXPECT_EQ(NetworkOf("192.0.2.1"), "192.0.2.1");
  EXPECT_EQ(NetworkOf("2001:db8:1:2:3:4:5:6"), "2001:db8:1:2:");
  EXPECT_EQ(NetworkOf("2001:db8:1:2::9"), NetworkOf("2001:db8:1:2:ffff::1"));
  EXPECT_NE(NetworkOf("2001:db8:1:2::9"), NetworkOf("2001:db8:1:3::9"));
  EXPECT_EQ(NetworkOf("2001:db8::5:6:7:8:9"), "2001:db8:0:5:");
  EXPECT_EQ(NetworkOf("::1"), "0:0:0:0:");
  EXPECT_EQ(NetworkOf("fe80::1%eth0"), "fe80:0:0:0:");
  EXPECT_EQ(NetworkOf("::"), "0:0:0:0:");
}

}  // namespace
}  // namespace Tansy::Host
