#include "SignalThread.h"

#include <gtest/gtest.h>

#include <deque>
#include <vector>

namespace Tansy::Host {
namespace {

using HostSystem::ESignal;
using EEnd = CSignalThread::EEnd;

constexpr std::chrono::minutes kNever{10};
constexpr std::chrono::seconds kPatience{30};

// Signals that a test sends, and the ends of the process that follow.
class SignalThreadTest : public testing::Test {
 protected:
  CSignalThread::Source Source() {
    return [this](std::chrono::milliseconds patience) -> std::optional<ESignal> {
      std::unique_lock lock(mutex_);
      changed_.wait_for(lock, patience, [this] { return !sent_.empty(); });
      if (sent_.empty()) {
        return std::nullopt;
      }
      const ESignal signal = sent_.front();
      sent_.pop_front();
      changed_.notify_all();
      return signal;
    };
  }
  CSignalThread::EndNow EndNow() {
    return [this](EEnd why) {
      const std::lock_guard lock(mutex_);
      ends_.push_back(why);
      changed_.notify_all();
    };
  }
  void Send(ESignal signal) {
    const std::lock_guard lock(mutex_);
    sent_.push_back(signal);
    changed_.notify_all();
  }
  void SendAndWaitUntilTaken(ESignal signal) {
    Send(signal);
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, kPatience, [this] { return sent_.empty(); }));
  }
  std::optional<EEnd> WaitForEnd() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [this] { return !ends_.empty(); });
    return ends_.empty() ? std::nullopt : std::optional(ends_.front());
  }
  std::size_t CountEnds() {
    const std::lock_guard lock(mutex_);
    return ends_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<ESignal> sent_;
  std::vector<EEnd> ends_;
};

TEST_F(SignalThreadTest, TheFirstStopSignalAsksAndASecondEnds) {
  CSignalThread signals(Source(), EndNow(), {kNever, kNever});
  signals.SetServing();
  EXPECT_FALSE(signals.StopToken().stop_requested());
  Send(ESignal::kStop);
  EXPECT_EQ(signals.Wait(), ESignal::kStop);
  EXPECT_TRUE(signals.StopToken().stop_requested());
  EXPECT_EQ(CountEnds(), 0U) << "the rest of the program ends in its own time";
  Send(ESignal::kStop);
  EXPECT_EQ(WaitForEnd(), EEnd::kSecondSignal);
}

TEST_F(SignalThreadTest, AStartThatGoesOnIsEndedAfterItsLimit) {
  CSignalThread signals(Source(), EndNow(), {std::chrono::milliseconds(1), kNever});
  Send(ESignal::kStop);
  EXPECT_EQ(WaitForEnd(), EEnd::kStillStarting);
}

TEST_F(SignalThreadTest, ASecondSignalEndsAStartToo) {
  CSignalThread signals(Source(), EndNow(), {kNever, kNever});
  Send(ESignal::kStop);
  Send(ESignal::kStop);
  EXPECT_EQ(WaitForEnd(), EEnd::kStillStarting);
}

TEST_F(SignalThreadTest, AStopThatGoesOnIsEndedAfterItsLimit) {
  CSignalThread signals(Source(), EndNow(), {kNever, std::chrono::milliseconds(1)});
  signals.SetServing();
  Send(ESignal::kStop);
  EXPECT_EQ(WaitForEnd(), EEnd::kOverdue);
}

TEST_F(SignalThreadTest, TheLimitOfAStopCountsOnlyOnceItServes) {
  {
    CSignalThread signals(Source(), EndNow(), {kNever, std::chrono::milliseconds(1)});
    Send(ESignal::kStop);
    EXPECT_EQ(signals.Wait(), ESignal::kStop);
    SendAndWaitUntilTaken(ESignal::kReload);
    SendAndWaitUntilTaken(ESignal::kReload);  // by now the thread has looked at its limit after the first
  }
  EXPECT_EQ(CountEnds(), 0U);
}

TEST_F(SignalThreadTest, ReloadsAreKeptUntilTheyAreFetched) {
  CSignalThread signals(Source(), EndNow(), {kNever, kNever});
  Send(ESignal::kReload);
  EXPECT_EQ(signals.Wait(), ESignal::kReload);
  Send(ESignal::kReload);
  EXPECT_EQ(signals.Wait(), ESignal::kReload);
  SendAndWaitUntilTaken(ESignal::kReload);
  SendAndWaitUntilTaken(ESignal::kStop);
  SendAndWaitUntilTaken(ESignal::kReload);  // by now the stop has been looked at
  EXPECT_EQ(signals.Wait(), ESignal::kStop) << "a stop goes first";
  EXPECT_EQ(signals.Wait(), ESignal::kStop) << "and stays";
}

TEST_F(SignalThreadTest, EndsWithoutAnySignal) {
  CSignalThread signals(Source(), EndNow(), {std::chrono::milliseconds(1), std::chrono::milliseconds(1)});
  EXPECT_EQ(CountEnds(), 0U);
}

}  // namespace
}  // namespace Tansy::Host
