#include "StorageServer/ObjectServer/KeyLocks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <future>
#include <memory>
#include <mutex>
#include <numeric>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "fakes/HeldLoop.h"

namespace Tansy::CloudStorage {
namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 2000;

template <class Work>
void InThreads(Work work) {
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([work, i] { work(i); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// Which mutex stands for a name.
template <std::size_t Stripes>
const CHandedMutex* StripeOf(CKeyLocks<Stripes>& locks, const std::string& group, const std::string& name) {
  return locks.Lock(group, name).Stripe();
}

TEST(KeyLocks, PutsWorkOnOneNameInLine) {
  CKeyLocks<8> locks;
  int count = 0;  // guarded by the name's lock alone
  InThreads([&](int) {
    for (int round = 0; round < kRounds; ++round) {
      const auto guard = locks.Lock("bucket", "key");
      ++count;
    }
  });
  EXPECT_EQ(count, kThreads * kRounds);
}

TEST(KeyLocks, HasOneMutexANameAndUsesAllOfThem) {
  CKeyLocks<32> locks;
  std::set<const CHandedMutex*> by_name;
  std::set<const CHandedMutex*> by_group;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = std::to_string(i);
    EXPECT_EQ(StripeOf(locks, "bucket", text), StripeOf(locks, "bucket", text));
    by_name.insert(StripeOf(locks, "bucket", text));
    by_group.insert(StripeOf(locks, text, "key"));
  }
  EXPECT_EQ(by_name.size(), 32U);
  EXPECT_EQ(by_group.size(), 32U);
}

// A write goes on, and ends, on whatever thread commits it.
TEST(KeyLocks, AnotherThreadMayReleaseAName) {
  CKeyLocks<8> locks;
  int count = 0;  // guarded by the name's lock alone
  InThreads([&](int) {
    for (int round = 0; round < kRounds / 20; ++round) {
      auto guard = std::make_unique<CKeyLocks<8>::Guard>(locks.Lock("bucket", "key"));
      std::thread([&count, held = std::move(guard)] { ++count; }).join();
    }
  });
  EXPECT_EQ(count, kThreads * (kRounds / 20));
  const auto all = locks.LockAll();
}

TEST(KeyLocks, WhoWantsAllWaitsForANameThatWasHandedOn) {
  CKeyLocks<8> locks;
  auto guard = std::make_unique<CKeyLocks<8>::Guard>(locks.Lock("bucket", "key"));
  std::atomic<bool> released{false};
  std::promise<void> wants_all;
  std::thread other([&, held = std::move(guard)]() mutable {
    wants_all.get_future().wait();
    released = true;
    held.reset();
  });
  std::thread all([&] {
    wants_all.set_value();
    const auto every = locks.LockAll();
    EXPECT_TRUE(released);
  });
  other.join();
  all.join();
}

TEST(KeyLocks, HoldsEveryNameAtOnce) {
  CKeyLocks<8> locks;
  std::array<int, kThreads> counts{};  // each guarded by the lock of its thread's name
  int rounds_of_all = 0;               // guarded by all of them
  InThreads([&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      if (round % 10 == 0) {
        const auto guard = locks.LockAll();
        ++rounds_of_all;
        for (int& count : counts) {
          ++count;
        }
      } else {
        const auto guard = locks.Lock("bucket", std::to_string(thread));
        ++counts[static_cast<std::size_t>(thread)];
      }
    }
  });
  EXPECT_EQ(rounds_of_all, kThreads * kRounds / 10);
  for (const int count : counts) {
    EXPECT_EQ(count, kThreads * kRounds / 10 + kRounds * 9 / 10);
  }
}

// Names that share a mutex, or are named twice, must not wait for themselves; those who want the same names in another
// order must not wait for each other.
TEST(KeyLocks, HoldsSomeNamesAtOnce) {
  CKeyLocks<8> locks;
  std::array<int, kThreads> counts{};  // each guarded by the lock of its name
  const std::array<std::string, kThreads> names = {"0", "1", "2", "3"};
  InThreads([&](int thread) {
    std::vector<std::string_view> mine(names.begin(), names.end());
    mine.insert(mine.end(), {"x", "y", "z", "0", "1"});
    std::rotate(mine.begin(), mine.begin() + thread, mine.end());
    for (int round = 0; round < kRounds; ++round) {
      if (round % 3 == 0) {
        const auto guard = locks.Lock("bucket", mine);
        for (int& count : counts) {
          ++count;
        }
      } else if (round % 50 == 1) {
        const auto guard = locks.LockAll();
        for (int& count : counts) {
          ++count;
        }
      } else {
        const auto at = static_cast<std::size_t>(round) % counts.size();
        const auto guard = locks.Lock("bucket", names[at]);
        ++counts[at];
      }
    }
  });
  int expected = 0;
  for (int round = 0; round < kRounds; ++round) {
    expected += round % 3 == 0 || round % 50 == 1 ? kThreads : 1;
  }
  EXPECT_EQ(std::accumulate(counts.begin(), counts.end(), 0), expected * kThreads);
}

TEST(KeyLocks, SomeNamesKeepASingleOneWaiting) {
  CKeyLocks<1024> locks;
  const std::vector<std::string_view> names = {"a", "b"};
  auto held = std::make_unique<CKeyLocks<1024>::SomeGuard>(locks.Lock("bucket", names));
  std::atomic<bool> released{false};
  std::promise<void> waits;
  std::thread other([&] {
    waits.set_value();
    const auto guard = locks.Lock("bucket", "b");
    EXPECT_TRUE(released);
  });
  waits.get_future().wait();
  released = true;
  held.reset();
  other.join();
}

TEST(KeyLocks, IsFreeAgainAfterwards) {
  CKeyLocks<4> locks;
  { const auto guard = locks.LockAll(); }
  { const auto guard = locks.Lock("", "key"); }
  EXPECT_TRUE(locks.LockAll().owns_lock());
}

// Whoever wants all names gets them although others never stop taking single ones.
TEST(KeyLocks, GetsEveryNameBesideWorkThatNeverPauses) {
  CKeyLocks<4> locks;
  std::atomic<bool> got_all{false};
  std::atomic<int> rounds{0};
  InThreads([&](int thread) {
    if (thread == 0) {
      while (rounds < kThreads) {
        std::this_thread::yield();
      }
      const auto guard = locks.LockAll();
      got_all = true;
      return;
    }
    // Two of these threads hold a name at each moment: each lets go of its name only after it has seen another
    // thread take one.
    while (!got_all) {
      const auto guard = locks.Lock("bucket", std::to_string(thread));
      const int seen = ++rounds;
      for (int i = 0; i < 1000 && rounds == seen && !got_all; ++i) {
        std::this_thread::yield();
      }
    }
  });
  EXPECT_TRUE(got_all);
}

// A thread of a message loop that waits for a name lets another task run meanwhile; the one thread of this loop would
// otherwise never come to the task that ends the wait.
TEST(KeyLocks, WaitingForANameLetsOtherTasksRun) {
  CKeyLocks<4> locks;
  TansyBase::CMessageLoopDyThreadPool loop;
  ASSERT_TRUE(loop.Start(1, 1, 5));
  for (const bool all : {false, true}) {
    auto held = std::make_unique<CKeyLocks<4>::Guard>(locks.Lock("bucket", "key"));
    std::promise<void> waiter_done;
    Tests::Post(loop, [&] {
      if (all) {
        const auto guard = locks.LockAll();
      } else {
        const auto guard = locks.Lock("bucket", "key");
      }
      waiter_done.set_value();
    });
    EXPECT_TRUE(Tests::WaitForTurn(loop));
    held.reset();
    waiter_done.get_future().wait();
  }
  loop.Stop(true);
}

}  // namespace
}  // namespace Tansy::CloudStorage
