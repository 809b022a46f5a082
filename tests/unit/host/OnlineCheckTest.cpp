#include "OnlineCheck.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>

#include "StartFailure.h"
#include "fakes/ManualClock.h"

namespace Tansy::Host {
namespace {

COnlineCheck::State WaitForEnd(const COnlineCheck& check) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (check.Get().is_running && std::chrono::steady_clock::now() < limit) {
    std::this_thread::yield();
  }
  return check.Get();
}

TEST(OnlineCheckTest, TellsWhatItFound) {
  Tests::CManualClock clock;
  COnlineCheck check([](const CheckOptions& options, std::ostream& out) {
    EXPECT_FALSE(options.repair);
    for (int i = 0; i < 5; ++i) {
      EXPECT_FALSE(options.is_stopping());
    }
    out << "orphan objects/a 5\n"
        << "missing /b/k " << 7 << '\n'
        << "check: 2 rows\n";
    return kExitFindings;
  });
  EXPECT_FALSE(check.Get().is_running);
  EXPECT_EQ(check.Get().started, 0);
  ASSERT_TRUE(check.Start());
  const COnlineCheck::State state = WaitForEnd(check);
  EXPECT_FALSE(state.is_running);
  EXPECT_EQ(state.exit_code, kExitFindings);
  EXPECT_EQ(state.findings, 2U);
  EXPECT_EQ(state.first_findings, (std::vector<std::string>{"orphan objects/a 5", "missing /b/k 7"}));
  EXPECT_EQ(state.summary, "check: 2 rows");
  EXPECT_EQ(state.looked_at, 5U);
  EXPECT_EQ(state.started, clock.Now());
  EXPECT_EQ(state.ended, clock.Now());
}

TEST(OnlineCheckTest, RunsOneAtATimeAndAgainAfterwards) {
  std::promise<void> go_on;
  const std::shared_future<void> may_end = go_on.get_future().share();
  COnlineCheck check([may_end](const CheckOptions& options, std::ostream& out) {
    options.is_stopping();
    may_end.wait();
    out << "check: done\n";
    return kExitDone;
  });
  ASSERT_TRUE(check.Start());
  EXPECT_TRUE(check.Get().is_running);
  EXPECT_FALSE(check.Start());
  go_on.set_value();
  EXPECT_EQ(WaitForEnd(check).exit_code, kExitDone);
  EXPECT_TRUE(check.Start());
  EXPECT_EQ(WaitForEnd(check).summary, "check: done");
}

TEST(OnlineCheckTest, KeepsTheFirstFindingsAndCountsAll) {
  COnlineCheck check([](const CheckOptions& /*options*/, std::ostream& out) {
    for (int i = 0; i < 100'000; ++i) {
      out << "orphan " << i << '\n';
    }
    out << "check: many\n";
    return kExitFindings;
  });
  ASSERT_TRUE(check.Start());
  const COnlineCheck::State state = WaitForEnd(check);
  EXPECT_EQ(state.findings, 100'000U);
  ASSERT_EQ(state.first_findings.size(), COnlineCheck::kMostFindings);
  EXPECT_EQ(state.first_findings.back(), "orphan 999");
}

TEST(OnlineCheckTest, SaysWhyItCouldNotLook) {
  COnlineCheck check([](const CheckOptions& /*options*/, std::ostream& /*out*/) -> int {
    throw std::runtime_error("the catalogue cannot be read");
  });
  ASSERT_TRUE(check.Start());
  const COnlineCheck::State state = WaitForEnd(check);
  EXPECT_EQ(state.exit_code, kExitFailed);
  EXPECT_EQ(state.summary, "the catalogue cannot be read");
}

TEST(OnlineCheckTest, NoneBeginsOnceItHasStopped) {
  COnlineCheck check([](const CheckOptions& /*options*/, std::ostream& /*out*/) { return kExitDone; });
  ASSERT_TRUE(check.Start());
  check.Stop();
  EXPECT_FALSE(check.Get().is_running);
  EXPECT_FALSE(check.Start());
}

TEST(OnlineCheckTest, ItsEndEndsACheckThatRuns) {
  std::promise<void> begun;
  bool was_stopped = false;
  {
    COnlineCheck check([&](const CheckOptions& options, std::ostream& /*out*/) {
      begun.set_value();
      while (!options.is_stopping()) {
        std::this_thread::yield();
      }
      was_stopped = true;
      return kExitFailed;
    });
    ASSERT_TRUE(check.Start());
    begun.get_future().wait();
  }
  EXPECT_TRUE(was_stopped);
}

}  // namespace
}  // namespace Tansy::Host
