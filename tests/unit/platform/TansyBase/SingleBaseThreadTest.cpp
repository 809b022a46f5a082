#include "TansyBase/SingleBaseThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "fakes/CapturingLogSink.h"

namespace TansyBase {
namespace {

using namespace std::chrono_literals;
constexpr std::uint32_t kLong = 600000;

class CCounter : public CSingleBaseThread {
 public:
  ~CCounter() override { Stop(); }

  bool WaitForCalls(int calls) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return calls_ >= calls; });
  }
  int Calls() {
    const std::lock_guard lock(mutex_);
    return calls_;
  }

  std::function<void()> in_timer;

 protected:
  void OnTimer() override {
    {
      const std::lock_guard lock(mutex_);
      ++calls_;
    }
    changed_.notify_all();
    if (in_timer) {
      in_timer();
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int calls_ = 0;
};

TEST(SingleBaseThread, CallsAtOnceAndThenOnceAPeriod) {
  CCounter counter;
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(counter.Start(40));
  EXPECT_TRUE(counter.WaitForCalls(1));
  EXPECT_TRUE(counter.WaitForCalls(3));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 80ms);
}

TEST(SingleBaseThread, ALongPeriodBringsOneCall) {
  CCounter counter;
  ASSERT_TRUE(counter.Start(kLong));
  EXPECT_TRUE(counter.WaitForCalls(1));
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(counter.Calls(), 1);
}

TEST(SingleBaseThread, WakeBringsTheNextCallNow) {
  CCounter counter;
  ASSERT_TRUE(counter.Start(kLong));
  EXPECT_TRUE(counter.WaitForCalls(1));
  counter.Wake();
  EXPECT_TRUE(counter.WaitForCalls(2));
  counter.Wake();
  EXPECT_TRUE(counter.WaitForCalls(3));
}

TEST(SingleBaseThread, RefusesAPeriodOfZeroAndASecondStart) {
  CCounter counter;
  EXPECT_FALSE(counter.Start(0));
  EXPECT_TRUE(counter.Start(kLong));
  EXPECT_FALSE(counter.Start(kLong));
}

TEST(SingleBaseThread, StopEndsTheLongestPeriodAtOnceAndWaitsForARunningCall) {
  CCounter counter;
  std::atomic<bool> finished{false};
  counter.in_timer = [&finished] {
    std::this_thread::sleep_for(50ms);
    finished = true;
  };
  ASSERT_TRUE(counter.Start(kLong));
  EXPECT_TRUE(counter.WaitForCalls(1));
  const auto begin = std::chrono::steady_clock::now();
  counter.Stop();
  EXPECT_TRUE(finished);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
  const int calls = counter.Calls();
  counter.Wake();
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(counter.Calls(), calls);
}

TEST(SingleBaseThread, ALongCallLearnsThatItIsToStop) {
  class CLongCall : public CSingleBaseThread {
   public:
    ~CLongCall() override { Stop(); }
    void OnTimer() override {
      saw_stop_at_first = IsStopping();
      started = true;
      while (!IsStopping()) {
        std::this_thread::yield();
      }
    }
    bool SeenFromOutside() const { return IsStopping(); }
    std::atomic<bool> started{false};
    std::atomic<bool> saw_stop_at_first{true};
  };
  CLongCall call;
  EXPECT_FALSE(call.SeenFromOutside());
  ASSERT_TRUE(call.Start(kLong));
  while (!call.started) {
    std::this_thread::yield();
  }
  call.Stop();
  EXPECT_FALSE(call.saw_stop_at_first);
  EXPECT_FALSE(call.SeenFromOutside());
}

TEST(SingleBaseThread, StoppingAStoppedThreadDoesNothing) {
  CCounter counter;
  counter.Stop();
  ASSERT_TRUE(counter.Start(kLong));
  counter.Stop();
  counter.Stop();
}

TEST(SingleBaseThread, StartsAgainAfterAStop) {
  CCounter counter;
  for (int round = 1; round <= 5; ++round) {
    ASSERT_TRUE(counter.Start(kLong));
    ASSERT_TRUE(counter.WaitForCalls(round));
    counter.Stop();
    EXPECT_EQ(counter.Calls(), round);
  }
}

TEST(SingleBaseThread, TheCallMayStopItsOwnThread) {
  CCounter counter;
  counter.in_timer = [&counter] {
    counter.Stop();
    EXPECT_FALSE(counter.Start(1));
  };
  ASSERT_TRUE(counter.Start(1));
  ASSERT_TRUE(counter.WaitForCalls(1));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(counter.Calls(), 1);
  EXPECT_TRUE(counter.Start(1));
  EXPECT_TRUE(counter.WaitForCalls(2));
}

TEST(SingleBaseThread, WhatTheCallThrowsIsLoggedAndTheNextComes) {
  Tansy::Tests::CLogCapture log;
  CCounter counter;
  counter.in_timer = [&counter] {
    if (counter.Calls() == 1) {
      throw std::runtime_error("boom");
    }
    throw 1;
  };
  ASSERT_TRUE(counter.Start(1));
  EXPECT_TRUE(counter.WaitForCalls(3));
  counter.Stop();
  EXPECT_NE(log->Text("[%s]OnTimer threw %s[%s(%d)]").find("boom"), std::string::npos);
  EXPECT_GE(log->Count("[%s]OnTimer threw[%s(%d)]", logging::kError), 1u);
}

TEST(SingleBaseThread, StartStopAndWakeFromManyThreads) {
  CCounter counter;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&counter] {
      for (int n = 0; n < 50; ++n) {
        counter.Start(1);
        counter.Wake();
        counter.Stop();
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  counter.Stop();
  const int calls = counter.Calls();
  std::this_thread::sleep_for(10ms);
  EXPECT_EQ(counter.Calls(), calls);
  EXPECT_GE(calls, 1);
}

}  // namespace
}  // namespace TansyBase
