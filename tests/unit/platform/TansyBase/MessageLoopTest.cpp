#include "TansyBase/MessageLoop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "fakes/CapturingLogSink.h"
#include "fakes/HeldLoop.h"
#include "fakes/Latch.h"

namespace TansyBase {
namespace {

using namespace std::chrono_literals;
namespace Tests = Tansy::Tests;
using Tansy::Tests::CHeldLoop;
using Tansy::Tests::CLatch;
using Tansy::Tests::CLogCapture;
using Tansy::Tests::Post;

// Tells when it is run and when it is deleted.
class CCountedTask : public CTask {
 public:
  CCountedTask(std::atomic<int>& runs, std::atomic<int>& deletions) : runs_(runs), deletions_(deletions) {}
  ~CCountedTask() override { ++deletions_; }
  void Exec() override { ++runs_; }

 private:
  std::atomic<int>& runs_;
  std::atomic<int>& deletions_;
};

class MessageLoop : public ::testing::Test {
 protected:
  bool PostCounted() { return loop_.PostTask(new CCountedTask(runs_, deletions_)); }

  std::atomic<int> runs_{0};
  std::atomic<int> deletions_{0};
  CMessageLoopDyThreadPool loop_;  // last: its threads use what stands above
};

// Waits until `condition` holds, for a generous while.
template <typename Condition>
bool Eventually(const Condition& condition) {
  for (int i = 0; i < 5000 && !condition(); ++i) {
    std::this_thread::sleep_for(1ms);
  }
  return condition();
}

TEST_F(MessageLoop, RefusesNumbersThatMakeNoSense) {
  EXPECT_FALSE(loop_.Start(0, 1, 1));
  EXPECT_FALSE(loop_.Start(-1, 1, 1));
  EXPECT_FALSE(loop_.Start(2, 1, 1));
  EXPECT_FALSE(loop_.Start(1, 1, -1));
  EXPECT_TRUE(loop_.Start(1, 1, 0));
}

TEST_F(MessageLoop, StartsOnce) {
  EXPECT_TRUE(loop_.Start(1, 1, 5));
  EXPECT_FALSE(loop_.Start(1, 1, 5));
}

TEST_F(MessageLoop, RunsAndDeletesEveryTask) {
  ASSERT_TRUE(loop_.Start(4, 4, 5));
  for (int i = 0; i < 1000; ++i) {
    EXPECT_TRUE(PostCounted());
  }
  EXPECT_TRUE(Eventually([&] { return deletions_ == 1000; }));
  EXPECT_EQ(runs_, 1000);
  EXPECT_TRUE(Eventually([&] { return loop_.GetWorkTaskCount() == 0; }));
}

TEST_F(MessageLoop, TasksPostedBeforeTheStartWait) {
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(PostCounted());
  }
  EXPECT_EQ(loop_.GetWorkTaskCount(), 10u);
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(runs_, 0);
  ASSERT_TRUE(loop_.Start(2, 2, 5));
  EXPECT_TRUE(Eventually([&] { return runs_ == 10; }));
}

// Runs a function as a task on the calling thread; false when the loop has no place for it.
bool RunHere(CMessageLoopDyThreadPool& loop, const std::function<void()>& function) {
  Tests::CFunctionTask task(function);
  return loop.RunHere(task);
}

TEST_F(MessageLoop, RunsATaskOnTheCallingThread) {
  ASSERT_TRUE(loop_.Start(2, 2, 5));
  std::thread::id id;
  std::size_t count = 0;
  EXPECT_TRUE(RunHere(loop_, [&] {
    id = std::this_thread::get_id();
    count = loop_.GetWorkTaskCount();
  }));
  EXPECT_EQ(id, std::this_thread::get_id());
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(loop_.GetWorkTaskCount(), 0u);
}

TEST_F(MessageLoop, ATaskThatThrowsOnTheCallingThreadDoesNoHarm) {
  const CLogCapture log;
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  EXPECT_TRUE(RunHere(loop_, [] { throw std::runtime_error("oops"); }));
  EXPECT_TRUE(RunHere(loop_, [] {}));
}

TEST_F(MessageLoop, RunsNothingHereUnlessItRuns) {
  EXPECT_FALSE(RunHere(loop_, [this] { ++runs_; }));
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  loop_.Stop(true);
  EXPECT_FALSE(RunHere(loop_, [this] { ++runs_; }));
  EXPECT_EQ(runs_, 0);
}

TEST_F(MessageLoop, RunsNothingHereWhileAllPlacesAreTaken) {
  ASSERT_TRUE(loop_.Start(2, 2, 5));
  CHeldLoop held(loop_, 2);
  EXPECT_FALSE(RunHere(loop_, [this] { ++runs_; }));
  held.Release();
  EXPECT_TRUE(Eventually([&] { return runs_ > 0 || RunHere(loop_, [this] { ++runs_; }); }));
  EXPECT_EQ(runs_, 1);
}

// The task that runs here takes the place of one of the loop's own. Mostly the loop's thread sleeps when the posted
// task finds no place, and only the end of the task here wakes it.
TEST_F(MessageLoop, ATaskThatFindsNoPlaceRunsAfterTheOneHere) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  for (int i = 0; i < 200; ++i) {
    std::atomic<bool> is_here{false};
    const auto overlapped = std::make_shared<std::promise<bool>>();
    const auto here = [&, overlapped] {
      is_here = true;
      EXPECT_TRUE(Post(loop_, [&is_here, overlapped] { overlapped->set_value(is_here); }));
      EXPECT_FALSE(RunHere(loop_, [] {}));
      is_here = false;
    };
    while (!RunHere(loop_, here)) {
      std::this_thread::yield();  // the task before is still on its last lines
    }
    auto result = overlapped->get_future();
    ASSERT_EQ(result.wait_for(60s), std::future_status::ready);
    EXPECT_FALSE(result.get());
  }
}

TEST_F(MessageLoop, ATaskHereThatWaitsGivesItsPlaceUp) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  EXPECT_TRUE(RunHere(loop_, [&] {
    std::promise<void> ran;
    EXPECT_TRUE(Post(loop_, [&] { ran.set_value(); }));
    const CBlockingScope blocking;
    EXPECT_EQ(ran.get_future().wait_for(60s), std::future_status::ready);
  }));
}

TEST_F(MessageLoop, SaysWhatWaitsAndWhatIsComputed) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  const auto expect_load = [&](std::size_t waiting, std::size_t computing, std::size_t blocked) {
    const CMessageLoopDyThreadPool::Load load = loop_.GetLoad();
    EXPECT_EQ(load.waiting, waiting);
    EXPECT_EQ(load.computing, computing);
    EXPECT_EQ(load.blocked, blocked);
  };
  expect_load(0, 0, 0);
  std::promise<void> over;
  EXPECT_TRUE(Post(loop_, [&] {
    expect_load(0, 1, 0);
    PostCounted();
    expect_load(1, 1, 0);
    loop_.Stop(false);  // so that no spare thread takes the one that waits
    {
      const CBlockingScope blocking;
      expect_load(0, 0, 1);
    }
    over.set_value();
  }));
  EXPECT_EQ(over.get_future().wait_for(60s), std::future_status::ready);
}

TEST_F(MessageLoop, AStopWaitsForATaskElsewhereAndRunsWhatWaitsBehindIt) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  CLatch began(1);
  CLatch released(1);
  std::thread visitor([&] {
    EXPECT_TRUE(RunHere(loop_, [&] {
      began.CountDown();
      released.Wait();
      ++runs_;
    }));
  });
  began.Wait();
  PostCounted();
  std::thread releaser([&] { released.CountDown(); });
  loop_.Stop(true);
  EXPECT_EQ(runs_, 2);
  visitor.join();
  releaser.join();
}

TEST_F(MessageLoop, AStopWaitsForATaskElsewhereAlsoWhenNothingElseWaits) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  CLatch began(1);
  CLatch released(1);
  std::thread visitor([&] {
    EXPECT_TRUE(RunHere(loop_, [&] {
      began.CountDown();
      released.Wait();
      ++runs_;
    }));
  });
  began.Wait();
  // The task is released when the stop has begun.
  std::thread releaser([&] {
    EXPECT_TRUE(Eventually([this] { return !Post(loop_, [] {}); }));
    released.CountDown();
  });
  loop_.Stop(false);
  EXPECT_EQ(runs_, 1);
  visitor.join();
  releaser.join();
}

TEST_F(MessageLoop, ATaskHereMayStopTheLoop) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  EXPECT_TRUE(RunHere(loop_, [this] { loop_.Stop(true); }));
  EXPECT_FALSE(RunHere(loop_, [] {}));
}

TEST_F(MessageLoop, ALoopThatWasNeverStartedDeletesItsTasksAtItsEnd) {
  {
    CMessageLoopDyThreadPool loop;
    loop.PostTask(new CCountedTask(runs_, deletions_));
    loop.Stop(true);
    EXPECT_EQ(deletions_, 0);
  }
  EXPECT_EQ(deletions_, 1);
  EXPECT_EQ(runs_, 0);
}

TEST_F(MessageLoop, TasksStartInTheOrderInWhichTheyWerePosted) {
  std::vector<int> order;
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  for (int i = 0; i < 200; ++i) {
    Post(loop_, [&order, i] { order.push_back(i); });
  }
  loop_.Stop(true);
  ASSERT_EQ(order.size(), 200u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(MessageLoop, CountsWaitingAndRunningTasks) {
  ASSERT_TRUE(loop_.Start(2, 2, 5));
  CHeldLoop held(loop_, 2);
  EXPECT_EQ(loop_.GetWorkTaskCount(), 2u);
  for (int i = 0; i < 5; ++i) {
    PostCounted();
  }
  EXPECT_EQ(loop_.GetWorkTaskCount(), 7u);
  held.Release();
  EXPECT_TRUE(Eventually([&] { return loop_.GetWorkTaskCount() == 0; }));
  EXPECT_EQ(runs_, 5);
}

TEST_F(MessageLoop, AllThreadsWorkAtOnce) {
  ASSERT_TRUE(loop_.Start(4, 4, 5));
  CLatch together(5);
  for (int i = 0; i < 4; ++i) {
    Post(loop_, [&together] { together.ArriveAndWait(); });
  }
  together.ArriveAndWait();  // hangs unless four tasks run at the same time
  loop_.Stop(true);          // before the latch goes: the tasks may still be leaving it
}

TEST_F(MessageLoop, GrowsToItsMaximumAndNoFurther) {
  ASSERT_TRUE(loop_.Start(1, 3, 5));
  CHeldLoop held(loop_, 3);
  std::atomic<bool> fourth{false};
  Post(loop_, [&fourth] { fourth = true; });
  std::this_thread::sleep_for(30ms);
  EXPECT_FALSE(fourth);
  held.Release();
  EXPECT_TRUE(Eventually([&] { return fourth.load(); }));
}

TEST_F(MessageLoop, ExtraThreadsLeaveAndComeBack) {
  ASSERT_TRUE(loop_.Start(1, 4, 0));
  for (int round = 0; round < 20; ++round) {
    CHeldLoop held(loop_, 4);
    held.Release();
    std::this_thread::sleep_for(2ms);  // no idle time: the three extra threads leave
  }
  std::mutex mutex;
  std::set<std::thread::id> ids;
  for (int i = 0; i < 50; ++i) {
    EXPECT_TRUE(Tests::WaitForTurn(loop_, 10s));
    Post(loop_, [&] {
      const std::lock_guard lock(mutex);
      ids.insert(std::this_thread::get_id());
    });
  }
  loop_.Stop(true);
  EXPECT_GE(ids.size(), 1u);
  EXPECT_EQ(loop_.GetWorkTaskCount(), 0u);
}

// A wake-up meant for a sleeping thread is not lost when a busy one takes the task first: the sleeper still hears of
// the next task while the busy one is held.
TEST_F(MessageLoop, NoWakeUpIsLostToAThreadThatWasQuicker) {
  ASSERT_TRUE(loop_.Start(2, 2, 5));
  for (int round = 0; round < 300; ++round) {
    for (int i = 0; i < 3; ++i) {
      PostCounted();
    }
    CHeldLoop held(loop_, 1);
    ASSERT_TRUE(Tests::WaitForTurn(loop_, 10s)) << round;
  }
}

// Each task comes at another moment of the way from the end of the one before to the sleep.
TEST_F(MessageLoop, NoTaskIsLeftToAThreadThatFallsAsleep) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  const auto end = std::chrono::steady_clock::now() + 60s;
  for (int posted = 1; posted <= 20000; ++posted) {
    ASSERT_TRUE(PostCounted());
    while (runs_ < posted) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "task " << posted;
      std::this_thread::yield();
    }
    for (int i = 0; i < posted % 64; ++i) {
      std::this_thread::yield();
    }
  }
}

TEST_F(MessageLoop, ManyPostersLoseNothing) {
  ASSERT_TRUE(loop_.Start(1, 4, 0));
  std::vector<std::thread> posters;
  for (int i = 0; i < 4; ++i) {
    posters.emplace_back([&] {
      for (int n = 0; n < 2000; ++n) {
        PostCounted();
      }
    });
  }
  for (auto& poster : posters) {
    poster.join();
  }
  EXPECT_TRUE(Eventually([&] { return deletions_ == 8000; }));
  EXPECT_EQ(runs_, 8000);
}

TEST_F(MessageLoop, StopDropsWhatWaitsAndWaitsForWhatRuns) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  CLatch started(1);
  std::atomic<bool> finished{false};
  Post(loop_, [&] {
    started.CountDown();
    std::this_thread::sleep_for(50ms);
    finished = true;
  });
  PostCounted();
  started.Wait();
  loop_.Stop(false);
  EXPECT_TRUE(finished);
  EXPECT_EQ(runs_, 0);
  EXPECT_EQ(deletions_, 1);
  EXPECT_EQ(loop_.GetWorkTaskCount(), 0u);
}

TEST_F(MessageLoop, StopMayRunWhatWaitsFirst) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  for (int i = 0; i < 100; ++i) {
    PostCounted();
  }
  loop_.Stop(true);
  EXPECT_EQ(runs_, 100);
  EXPECT_EQ(deletions_, 100);
}

TEST_F(MessageLoop, TasksPostedAfterTheStopAreDeletedAtOnce) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  loop_.Stop(false);
  EXPECT_FALSE(PostCounted());
  EXPECT_EQ(deletions_, 1);
  EXPECT_EQ(runs_, 0);
  EXPECT_EQ(loop_.GetWorkTaskCount(), 0u);
}

TEST_F(MessageLoop, StartAfterStopStartsOver) {
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(loop_.Start(2, 3, 1));
    EXPECT_TRUE(PostCounted());
    loop_.Stop(true);
  }
  EXPECT_EQ(runs_, 3);
}

TEST_F(MessageLoop, RefusesANullTask) {
  EXPECT_FALSE(loop_.PostTask(nullptr));
  EXPECT_EQ(loop_.GetWorkTaskCount(), 0u);
}

TEST_F(MessageLoop, ATaskMayStopItsOwnLoop) {
  ASSERT_TRUE(loop_.Start(2, 2, 5));
  std::promise<void> stopped;
  Post(loop_, [&] {
    loop_.Stop(false);
    EXPECT_FALSE(loop_.Start(1, 1, 1));
    stopped.set_value();
  });
  stopped.get_future().wait();
  EXPECT_FALSE(PostCounted());
  EXPECT_TRUE(loop_.Start(1, 1, 5));  // waits for that task
  EXPECT_TRUE(PostCounted());
  loop_.Stop(true);
  EXPECT_EQ(runs_, 1);
}

TEST_F(MessageLoop, TwoTasksMayStopTheLoopAtOnce) {
  ASSERT_TRUE(loop_.Start(2, 2, 5));
  CLatch both(2);
  for (int i = 0; i < 2; ++i) {
    Post(loop_, [&] {
      both.ArriveAndWait();
      loop_.Stop(true);
    });
  }
  both.Wait();
  loop_.Stop(false);
  EXPECT_EQ(loop_.GetWorkTaskCount(), 0u);
}

TEST_F(MessageLoop, ATaskMayPostAnother) {
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  Post(loop_, [this] { PostCounted(); });
  EXPECT_TRUE(Eventually([&] { return runs_ == 1; }));
}

TEST_F(MessageLoop, WhatATaskThrowsIsLoggedAndTheLoopGoesOn) {
  CLogCapture log;
  ASSERT_TRUE(loop_.Start(1, 1, 5));
  Post(loop_, [] { throw std::runtime_error("boom"); });
  Post(loop_, [] { throw 5; });
  PostCounted();
  loop_.Stop(true);
  EXPECT_EQ(runs_, 1);
  EXPECT_EQ(log->Count("[%s]task threw %s[%s(%d)]", logging::kError), 1u);
  EXPECT_NE(log->Text("[%s]task threw %s[%s(%d)]").find("boom"), std::string::npos);
  EXPECT_EQ(log->Count("[%s]task threw[%s(%d)]", logging::kError), 1u);
  EXPECT_EQ(loop_.GetWorkTaskCount(), 0u);
}

TEST_F(MessageLoop, StopFromManyThreadsAtOnce) {
  ASSERT_TRUE(loop_.Start(4, 4, 5));
  for (int i = 0; i < 100; ++i) {
    PostCounted();
  }
  std::vector<std::thread> stoppers;
  for (int i = 0; i < 4; ++i) {
    stoppers.emplace_back([this] { loop_.Stop(true); });
  }
  for (auto& stopper : stoppers) {
    stopper.join();
  }
  EXPECT_EQ(runs_, 100);
}

}  // namespace
}  // namespace TansyBase
