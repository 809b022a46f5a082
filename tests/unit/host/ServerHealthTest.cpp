#include "ServerHealth.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

namespace Tansy::Host {
namespace {

bool Eventually(const std::function<bool()>& condition) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

TEST(ServerHealthTest, IsWellWhenNothingIsWrong) {
  CServerHealth health({{"database", [] { return std::string(); }}});
  EXPECT_TRUE(health.Report().IsWell()) << "before the first look: the server has just started with it";
  health.Begin();
  EXPECT_TRUE(health.Report().IsWell());
}

TEST(ServerHealthTest, SaysWhatIsWrongAndThatItIsOver) {
  std::atomic<bool> is_broken{true};
  CServerHealth health({{"database", [] { return std::string(); }},
                        {"storage", [&] { return is_broken ? std::string("no disk") : std::string(); }}});
  health.Begin();
  ASSERT_TRUE(Eventually([&] { return !health.Report().IsWell(); }));
  const HealthReport report = health.Report();
  ASSERT_EQ(report.parts.size(), 2U);
  EXPECT_EQ(report.parts[0].trouble, "");
  EXPECT_EQ(report.parts[1].name, "storage");
  EXPECT_EQ(report.parts[1].trouble, "no disk");
  is_broken = false;
  health.Wake();
  EXPECT_TRUE(Eventually([&] { return health.Report().IsWell(); }));
}

TEST(ServerHealthTest, AProbeThatThrowsIsInTroubleAndTheOthersAreAsked) {
  CServerHealth health({{"database", []() -> std::string { throw std::runtime_error("torn"); }},
                        {"storage", [] { return std::string("no disk"); }}});
  health.Begin();
  ASSERT_TRUE(Eventually([&] { return !health.Report().parts[1].trouble.empty(); }));
  EXPECT_EQ(health.Report().parts[0].trouble, "torn");
}

// Ten seconds of the test are spent waiting, because that is what is promised.
TEST(ServerHealthTest, AProbeThatDoesNotComeBackKeepsNobodyWaiting) {
  std::promise<void> release;
  CServerHealth health({{"database", [&] {
                           release.get_future().wait();
                           return std::string();
                         }}});
  health.Begin();
  EXPECT_TRUE(health.Report().IsWell());
  EXPECT_TRUE(Eventually([&] { return !health.Report().IsWell(); }));
  EXPECT_EQ(health.Report().parts[0].trouble, "does not answer");
  release.set_value();
  EXPECT_TRUE(Eventually([&] { return health.Report().IsWell(); }));
  health.Stop();
}

}  // namespace
}  // namespace Tansy::Host
