#include "ServiceWatchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "fakes/CapturingLogSink.h"

namespace Tansy::Host {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

TEST(ServiceWatchdogTest, TellsAgainAndAgainThatAllIsWell) {
  std::promise<void> often;
  std::atomic<int> told{0};
  CServiceWatchdog watchdog(
      milliseconds(8), [](milliseconds) { return true; },
      [&] {
        if (++told == 3) {
          often.set_value();
        }
      });
  watchdog.Begin();
  EXPECT_EQ(often.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
}

TEST(ServiceWatchdogTest, LooksAndPausesForAQuarterOfThePeriodEach) {
  std::promise<milliseconds> asked;
  std::atomic<bool> is_first{true};
  CServiceWatchdog watchdog(
      std::chrono::seconds(20),
      [&](milliseconds patience) {
        if (is_first.exchange(false)) {
          asked.set_value(patience);
        }
        return true;
      },
      [] {});
  watchdog.Begin();
  auto patience = asked.get_future();
  ASSERT_EQ(patience.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  EXPECT_EQ(patience.get(), std::chrono::seconds(5));
}

TEST(ServiceWatchdogTest, IsSilentWhileNobodyIsAnsweredAndSaysSoOnce) {
  const Tests::CLogCapture log;
  std::atomic<int> looks{0};
  std::atomic<int> told{0};
  std::promise<void> well_again;
  CServiceWatchdog watchdog(
      microseconds(1), [&](milliseconds) { return ++looks > 3; },
      [&] {
        if (++told == 1) {
          EXPECT_GT(looks, 3);
          well_again.set_value();
        }
      });
  watchdog.Begin();
  EXPECT_EQ(well_again.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
  watchdog.Stop();
  EXPECT_EQ(log->Count("[%s]clients have had no answer for %lld ms: the service manager is not told that all is "
                       "well.[%s(%d)]"),
            1U);
}

}  // namespace
}  // namespace Tansy::Host
