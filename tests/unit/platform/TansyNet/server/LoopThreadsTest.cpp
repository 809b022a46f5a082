#include "TansyNet/server/LoopThreads.h"

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fakes/Latch.h"

namespace TansyNet {
namespace {

using Tansy::Tests::CLatch;

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
    CLatch done(1);
    bool was_lent = false;
    std::function<void()> attempt = [&] {
      {
        const auto now = std::chrono::steady_clock::now();
        const CLoopThreads::CLoan loan(threads_);
        was_lent = CLoopThreads::IsThreadLent();
        if (was_lent) {
          loan_began_ = now;
          action();
        }
      }
      if (was_lent || std::chrono::steady_clock::now() > limit_) {
        done.CountDown();
      } else {
        std::this_thread::yield();
        Post(attempt);
      }
    };
    Post(attempt);
    done.Wait();
    return was_lent;
  }

  // Runs a step and waits for it.
  void Step(const std::function<void()>& step) {
    CLatch done(1);
    Post([&] {
      step();
      done.CountDown();
    });
    done.Wait();
  }

  static std::int64_t Milliseconds(std::chrono::steady_clock::time_point since) {
    using std::chrono::steady_clock;
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - since).count();
  }

  // Lends the leader until another thread leads, and returns the milliseconds from the loan's begin to the next loan.
  std::int64_t PauseAfterASlowLoan() {
    CLatch released(1);
    CLatch began(1);
    std::thread caller([&] {
      EXPECT_TRUE(OnLoan([&] {
        began.CountDown();
        released.Wait();
      }));
    });
    began.Wait();
    const auto begin = loan_began_;
    Step([] {});
    released.CountDown();
    caller.join();
    EXPECT_TRUE(OnLoan([] {}));
    return Milliseconds(begin);
  }

  void Enter() {
    ++entered_;
    const std::lock_guard lock(mutex_);
    ids_.push_back(::gettid());
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
  std::chrono::steady_clock::time_point loan_began_;  // not later than the loan
  std::mutex mutex_;
  std::condition_variable posted_;
  std::deque<std::function<void()>> steps_;
  std::vector<pid_t> ids_;  // of the loop's threads; guarded by mutex_
  std::atomic<int> entered_{0};
  CLoopThreads threads_{[this] { Enter(); }, [this] { return RunOne(); }};
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
  CLatch released(1);
  CLatch began(1);
  std::thread::id slow;
  std::thread caller([&] {
    EXPECT_TRUE(OnLoan([&] {
      slow = std::this_thread::get_id();
      began.CountDown();
      released.Wait();
    }));
  });
  began.Wait();
  const auto begin = loan_began_;
  // These would wait for ever without another leader.
  Step([&] {
    EXPECT_NE(std::this_thread::get_id(), slow);
    EXPECT_TRUE(threads_.IsLeader());
    EXPECT_GE(Milliseconds(begin), CLoopThreads::kPatienceMs - 1) << "times are whole milliseconds";
  });
  // The storage is slow: for now nothing is lent.
  Step([&] {
    const CLoopThreads::CLoan loan(threads_);
    EXPECT_FALSE(CLoopThreads::IsThreadLent() && Milliseconds(begin) < CLoopThreads::kShortestPauseMs);
  });
  released.CountDown();
  caller.join();
  Step([&] { EXPECT_NE(std::this_thread::get_id(), slow); });
}

TEST_F(LoopThreads, WhoLostTheLeadKnowsIt) {
  threads_.Start();
  CLatch checked(1);
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
    checked.CountDown();
  });
  Step([&] { lead_passed_on = true; });
  checked.Wait();
}

TEST_F(LoopThreads, ManySlowLoansAreSurvivedOneAfterAnother) {
  threads_.Start();
  CLatch released(1);
  std::set<std::thread::id> slow;
  std::mutex mutex;
  std::deque<std::thread> callers;
  for (std::size_t i = 0; i + 1 < CLoopThreads::kThreads; ++i) {
    CLatch began(1);
    callers.emplace_back([&] {
      EXPECT_TRUE(OnLoan([&] {
        {
          const std::lock_guard lock(mutex);
          slow.insert(std::this_thread::get_id());
        }
        began.CountDown();
        released.Wait();
      }));
    });
    began.Wait();
    Step([&] { EXPECT_TRUE(threads_.IsLeader()); });
  }
  EXPECT_EQ(slow.size(), CLoopThreads::kThreads - 1);
  // The last thread lends nothing, because nobody would take the lead from it; the pauses end meanwhile.
  const auto begin = std::chrono::steady_clock::now();
  while (Milliseconds(begin) < 8 * CLoopThreads::kShortestPauseMs) {
    Step([&] {
      const CLoopThreads::CLoan loan(threads_);
      EXPECT_FALSE(CLoopThreads::IsThreadLent());
    });
  }
  released.CountDown();
  for (std::thread& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(entered_, static_cast<int>(CLoopThreads::kThreads));
}

TEST_F(LoopThreads, ThePauseGrowsWhileSlowLoansComeOneAfterAnother) {
  threads_.Start();
  EXPECT_GE(PauseAfterASlowLoan(), 2 * CLoopThreads::kShortestPauseMs);
  EXPECT_GE(PauseAfterASlowLoan(), 4 * CLoopThreads::kShortestPauseMs);
  EXPECT_GE(PauseAfterASlowLoan(), 8 * CLoopThreads::kShortestPauseMs);
}

#ifdef __linux__
// Counts how often the threads of the loop were switched so far. Threads that sleep are not.
class LoopThreadsAtRest : public LoopThreads {
 protected:
  std::uint64_t Switches() {
    std::uint64_t all = 0;
    const std::lock_guard lock(mutex_);
    for (const pid_t id : ids_) {
      std::ifstream in("/proc/self/task/" + std::to_string(id) + "/status");
      for (std::string name; in >> name;) {
        std::uint64_t count = 0;
        if (name == "voluntary_ctxt_switches:" && in >> count) {
          all += count;
        }
      }
    }
    return all;
  }

  // Waits until no thread looks any more. A follower looks every 5 ms, but on a busy machine it may get no processor
  // for much longer.
  bool ComeToRest() {
    int quiet = 0;
    for (std::uint64_t before = 0; quiet < 4 && std::chrono::steady_clock::now() < limit_;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      const std::uint64_t now = Switches();
      quiet = now == before ? quiet + 1 : 0;
      before = now;
    }
    return quiet == 4;
  }
};

TEST_F(LoopThreadsAtRest, ASlowLoanWakesTheThreadThatTakesTheLead) {
  threads_.Start();
  ASSERT_TRUE(OnLoan([] {}));  // there is a follower now
  ASSERT_TRUE(ComeToRest()) << "it looks for ever, though nothing is lent";
  CLatch released(1);
  CLatch began(1);
  std::thread caller([&] {
    EXPECT_TRUE(OnLoan([&] {
      began.CountDown();
      released.Wait();
    }));
  });
  began.Wait();
  std::atomic<bool> has_leader{false};
  Post([&] { has_leader = true; });
  while (!has_leader && std::chrono::steady_clock::now() < limit_) {
    std::this_thread::yield();
  }
  EXPECT_TRUE(has_leader) << "the loop stands still as long as the loan lasts";
  released.CountDown();
  caller.join();
}
#endif

TEST_F(LoopThreads, TheEndWaitsForALoanThatLostTheLead) {
  threads_.Start();
  CLatch released(1);
  CLatch began(1);
  std::atomic<bool> is_over{false};
  std::thread caller([&] {
    OnLoan([&] {
      began.CountDown();
      released.Wait();
      is_over = true;
    });
  });
  began.Wait();
  Step([] {});
  Post({});
  std::thread releaser([&] { released.CountDown(); });
  threads_.Join();
  EXPECT_TRUE(is_over);
  caller.join();
  releaser.join();
}

}  // namespace
}  // namespace TansyNet
