#include "TansyNet/server/LoopThreads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <latch>
#include <mutex>
#include <set>
#include <thread>

namespace TansyNet {
namespace {

// A loop whose steps are functions, in the order in which they were posted.
class LoopThreads : public ::testing::Test {
 protected:
  void TearDown() override {
    Post({});
    threads_.Join();
  }

  // An empty step ends the loop.
  void Post(std::function<void()> step) {
    const std::lock_guard lock(mutex_);
    steps_.push_back(std::move(step));
    posted_.notify_one();
  }

  // Makes a loan for the time of `action`, once one can be made, and tells whether one was made in a generous while.
  bool OnLoan(const std::function<void()>& action) {
    std::latch done(1);
    bool was_lent = false;
    std::function<void()> attempt = [&] {
      {
        const CLoopThreads::CLoan loan(threads_);
        was_lent = CLoopThreads::IsThreadLent();
        if (was_lent) {
          action();
        }
      }
      if (was_lent || std::chrono::steady_clock::now() > limit_) {
        done.count_down();
      } else {
        std::this_thread::yield();
        Post(attempt);
      }
    };
    Post(attempt);
    done.wait();
    return was_lent;
  }

  // Runs a step and waits for it.
  void Step(const std::function<void()>& step) {
    std::latch done(1);
    Post([&] {
      step();
      done.count_down();
    });
    done.wait();
  }

  bool RunOne() {
    std::function<void()> step;
    {
      std::unique_lock lock(mutex_);
      posted_.wait(lock, [this] { return !steps_.empty(); });
      step = std::move(steps_.front());
      steps_.pop_front();
    }
    if (!step) {
      Post({});  // the end stays the end
      return false;
    }
    // The loop is run by one thread at a time, though a step that lost the lead may still be at its end.
    step();
    return true;
  }

  const std::chrono::steady_clock::time_point limit_ = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  std::mutex mutex_;
  std::condition_variable posted_;
  std::deque<std::function<void()>> steps_;
  std::atomic<int> entered_{0};
  CLoopThreads threads_{[this] { ++entered_; }, [this] { return RunOne(); }};
};

TEST_F(LoopThreads, OneThreadTakesAllSteps) {
  threads_.Start();
  std::set<std::thread::id> ids;
  for (int i = 0; i < 100; ++i) {
    Step([&] {
      ids.insert(std::this_thread::get_id());
      EXPECT_TRUE(threads_.IsLeader());
    });
  }
  EXPECT_EQ(ids.size(), 1u);
  EXPECT_FALSE(threads_.IsLeader());
  EXPECT_FALSE(CLoopThreads::IsThreadLent());
}

TEST_F(LoopThreads, AQuickLoanKeepsTheLead) {
  threads_.Start();
  std::thread::id leader;
  Step([&] { leader = std::this_thread::get_id(); });
  std::thread::id lent;
  ASSERT_TRUE(OnLoan([&] { lent = std::this_thread::get_id(); }));
  EXPECT_EQ(lent, leader);
  Step([&] { EXPECT_EQ(std::this_thread::get_id(), leader); });
}

TEST_F(LoopThreads, WhileALoanLastsAnotherThreadTakesTheLead) {
  threads_.Start();
  std::latch released(1);
  std::latch began(1);
  std::thread::id slow;
  std::chrono::steady_clock::time_point begin;
  std::thread caller([&] {
    EXPECT_TRUE(OnLoan([&] {
      slow = std::this_thread::get_id();
      begin = std::chrono::steady_clock::now();
      began.count_down();
      released.wait();
    }));
  });
  began.wait();
  // These would wait for ever without another leader.
  Step([&] {
    EXPECT_NE(std::this_thread::get_id(), slow);
    EXPECT_TRUE(threads_.IsLeader());
  });
  // The storage is slow: for now nothing is lent.
  Step([&] {
    const CLoopThreads::CLoan loan(threads_);
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_FALSE(CLoopThreads::IsThreadLent() && waited < std::chrono::milliseconds(CLoopThreads::kShortestPauseMs));
  });
  released.count_down();
  caller.join();
  Step([&] { EXPECT_NE(std::this_thread::get_id(), slow); });
}

TEST_F(LoopThreads, WhoLostTheLeadKnowsIt) {
  threads_.Start();
  std::latch checked(1);
  std::atomic<bool> lead_passed_on{false};
  Post([&] {
    // Loans are made as soon as a follower is there.
    while (std::chrono::steady_clock::now() < limit_) {
      const CLoopThreads::CLoan loan(threads_);
      if (CLoopThreads::IsThreadLent()) {
        while (!lead_passed_on) {
          std::this_thread::yield();
        }
        break;
      }
    }
    EXPECT_FALSE(threads_.IsLeader());
    checked.count_down();
  });
  Step([&] { lead_passed_on = true; });
  checked.wait();
}

TEST_F(LoopThreads, ManySlowLoansAreSurvivedOneAfterAnother) {
  threads_.Start();
  std::latch released(1);
  std::set<std::thread::id> slow;
  std::mutex mutex;
  std::deque<std::thread> callers;
  for (std::size_t i = 0; i + 1 < CLoopThreads::kThreads; ++i) {
    std::latch began(1);
    callers.emplace_back([&] {
      EXPECT_TRUE(OnLoan([&] {
        {
          const std::lock_guard lock(mutex);
          slow.insert(std::this_thread::get_id());
        }
        began.count_down();
        released.wait();
      }));
    });
    began.wait();
    Step([&] { EXPECT_TRUE(threads_.IsLeader()); });
  }
  EXPECT_EQ(slow.size(), CLoopThreads::kThreads - 1);
  released.count_down();
  for (std::thread& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(entered_, static_cast<int>(CLoopThreads::kThreads));
}

TEST_F(LoopThreads, TheEndWaitsForALoanThatLostTheLead) {
  threads_.Start();
  std::latch released(1);
  std::latch began(1);
  std::atomic<bool> is_over{false};
  std::thread caller([&] {
    OnLoan([&] {
      began.count_down();
      released.wait();
      is_over = true;
    });
  });
  began.wait();
  Step([] {});
  Post({});
  std::thread releaser([&] { released.count_down(); });
  threads_.Join();
  EXPECT_TRUE(is_over);
  caller.join();
  releaser.join();
}

}  // namespace
}  // namespace TansyNet
