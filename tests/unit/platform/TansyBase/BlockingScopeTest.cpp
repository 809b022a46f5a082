#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "TansyBase/MessageLoop.h"
#include "fakes/FailingAllocation.h"
#include "fakes/HeldLoop.h"
#include "fakes/Latch.h"

namespace TansyBase {
namespace {

using namespace std::chrono_literals;
using Tansy::Tests::CHeldLoop;
using Tansy::Tests::CLatch;
using Tansy::Tests::Post;
using Tansy::Tests::WaitForTurn;

// What several threads wait for.
class CGate {
 public:
  // Waits in a CBlockingScope until the gate opens.
  void WaitBlocking() {
    const CBlockingScope blocking;
    Wait();
  }
  void Wait() {
    std::unique_lock lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  // Returns false when that many threads have not come within a generous time.
  bool Await(int threads) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 60s, [&] { return waiting_ >= threads; });
  }
  int Waiting() {
    const std::lock_guard lock(mutex_);
    return waiting_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool open_ = false;
};

class BlockingScope : public ::testing::Test {
 protected:
  ~BlockingScope() override {
    gate_.Open();
    loop_.Stop(true);
  }

  void PostBlocked(int count) {
    for (int i = 0; i < count; ++i) {
      Post(loop_, [this] { gate_.WaitBlocking(); });
    }
  }

  CGate gate_;
  CMessageLoopDyThreadPool loop_;
};

TEST_F(BlockingScope, SpareThreadsRunTasksWhileAllOthersWait) {
  ASSERT_TRUE(loop_.Start(4, 4, 5));
  PostBlocked(20);
  EXPECT_TRUE(gate_.Await(20));
  EXPECT_EQ(loop_.GetWorkTaskCount(), 20u);
  EXPECT_TRUE(WaitForTurn(loop_));
}

// The tasks wait here until a thread blocks: the place that it gives up goes to a task that was posted long before.
TEST_F(BlockingScope, AThreadThatBlocksLaterLetsAWaitingTaskRun) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  CGate start;
  Post(loop_, [&] {
    start.Wait();
    gate_.WaitBlocking();
  });
  CLatch ran(1);
  Post(loop_, [&ran] { ran.CountDown(); });
  start.Open();
  ran.Wait();
}

// Counts the tasks that compute, wherever they come to a wait and wherever they come back.
TEST_F(BlockingScope, NoTaskStartsWhileTheMaximumComputes) {
  constexpr int kTasks = 2000;
  ASSERT_TRUE(loop_.Start(4, 4, 5));
  std::atomic<int> starting{0};
  std::atomic<int> most{0};
  for (int i = 0; i < kTasks; ++i) {
    Post(loop_, [&] {
      const int now = ++starting;
      for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
      }
      std::this_thread::yield();
      --starting;
      const CBlockingScope blocking;
      std::this_thread::yield();
    });
  }
  loop_.Stop(true);
  EXPECT_LE(most, 4);
}

TEST_F(BlockingScope, AtMostSixtyFourThreadsAreReplaced) {
  constexpr int kReplaced = CMessageLoopDyThreadPool::kMaxBlocked;
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  PostBlocked(kReplaced + 2);
  EXPECT_TRUE(gate_.Await(kReplaced + 1)) << "the last one waits in the only place";
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(gate_.Waiting(), kReplaced + 1);
  gate_.Open();
  EXPECT_TRUE(gate_.Await(kReplaced + 2));
}

TEST_F(BlockingScope, WhoCameBackMayBeReplacedAgain) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  for (std::size_t i = 0; i < 2 * CMessageLoopDyThreadPool::kMaxBlocked; ++i) {
    Post(loop_, [] { const CBlockingScope blocking; });
  }
  PostBlocked(2);
  EXPECT_TRUE(gate_.Await(2)) << "the second one waits for the first one's place";
}

// While one task is held, no other one runs.
void ExpectOneTaskAtATime(CMessageLoopDyThreadPool& loop) {
  CHeldLoop held(loop, 1);
  std::atomic<bool> ran{false};
  Post(loop, [&ran] { ran = true; });
  std::this_thread::sleep_for(30ms);
  EXPECT_FALSE(ran);
  held.Release();
  EXPECT_TRUE(WaitForTurn(loop));
}

TEST_F(BlockingScope, AScopeInsideAnotherGivesUpOnePlaceOnly) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  Post(loop_, [this] {
    const CBlockingScope outer;
    { const CBlockingScope inner; }
    gate_.WaitBlocking();
  });
  EXPECT_TRUE(gate_.Await(1));
  // One spare thread computes in its place, and no second one does.
  ExpectOneTaskAtATime(loop_);
}

TEST_F(BlockingScope, HasNoEffectOutsideALoop) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  const CBlockingScope blocking;
  ExpectOneTaskAtATime(loop_);
}

TEST_F(BlockingScope, StopWaitsForThreadsThatBlock) {
  for (const bool run_waiting : {false, true}) {
    ASSERT_TRUE(loop_.Start(2, 2, 5));
    std::atomic<int> finished{0};
    CGate gate;
    for (int i = 0; i < 10; ++i) {
      Post(loop_, [&] {
        gate.WaitBlocking();
        ++finished;
      });
    }
    ASSERT_TRUE(gate.Await(10));
    std::thread opener([&gate] {
      std::this_thread::sleep_for(20ms);
      gate.Open();
    });
    loop_.Stop(run_waiting);
    EXPECT_EQ(finished, 10);
    opener.join();
  }
}

// The loop is stopped while both of its threads wait and tasks are left: those who come back run them.
TEST_F(BlockingScope, WhatWaitsIsRunByThoseWhoComeBackAfterAStop) {
  ASSERT_TRUE(loop_.Start(2, 2, 5));
  std::atomic<int> ran{0};
  CHeldLoop held(loop_, 2);
  for (int i = 0; i < 100; ++i) {
    Post(loop_, [&ran] {
      const CBlockingScope blocking;
      std::this_thread::yield();
      ++ran;
    });
  }
  std::thread releaser([&held] {
    std::this_thread::sleep_for(20ms);
    held.Release();
  });
  loop_.Stop(true);
  releaser.join();
  EXPECT_EQ(ran, 100);
}

// Without memory for a spare thread, the task waits until a thread comes back.
TEST_F(BlockingScope, GoesOnWithoutASpareThreadWhenThereIsNone) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  CGate start;
  CGate end;  // a task that is handed in meanwhile would bring a spare thread of its own
  std::atomic<bool> ran{false};
  bool ran_while_waiting = true;
  Post(loop_, [&] {
    start.Wait();
    std::optional<CBlockingScope> blocking;
    {
      const Tansy::Tests::CFailingAllocation failing(1);
      blocking.emplace();
    }
    std::this_thread::sleep_for(10ms);
    ran_while_waiting = ran;
    end.Open();
  });
  Post(loop_, [&ran] { ran = true; });
  start.Open();
  end.Wait();
  EXPECT_TRUE(WaitForTurn(loop_));
  loop_.Stop(true);
  EXPECT_TRUE(ran);
  EXPECT_FALSE(ran_while_waiting);
}

// Tells how many threads have run a task and not ended yet.
std::atomic<int> g_threads{0};
struct ThreadMark {
  ThreadMark() { ++g_threads; }
  ~ThreadMark() { --g_threads; }
};

TEST_F(BlockingScope, SpareThreadsLeaveWhenThereIsNothingToDo) {
  ASSERT_TRUE(loop_.Start(2, 2, 0));
  for (int i = 0; i < 20; ++i) {
    Post(loop_, [this] {
      thread_local const ThreadMark mark;
      gate_.WaitBlocking();
    });
  }
  EXPECT_TRUE(gate_.Await(20));
  EXPECT_EQ(g_threads, 20);
  gate_.Open();
  for (int i = 0; i < 60000 && g_threads > 2; ++i) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_LE(g_threads, 2) << "those that stay may be some that have never run a task";
}

TEST_F(BlockingScope, LockWhileBlockingLetsOthersRunOnlyWhileItWaits) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  std::mutex mutex;
  std::unique_lock held(mutex);
  Post(loop_, [&] {
    std::unique_lock lock(mutex, std::defer_lock);
    LockWhileBlocking(lock);
    EXPECT_TRUE(lock.owns_lock());
  });
  EXPECT_TRUE(WaitForTurn(loop_));
  held.unlock();
  loop_.Stop(true);
  EXPECT_TRUE(mutex.try_lock());
  mutex.unlock();
}

}  // namespace
}  // namespace TansyBase
