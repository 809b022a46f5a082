#include "Team.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "Parallel.h"

namespace Tansy::Cli {
namespace {

// Leaves this process without the right to start a thread. Only for a process that ends soon.
bool AllowNoMoreThreads() {
  const rlimit none{0, 0};
  constexpr uid_t kNobody = 65534;  // the limit does not hold for the superuser
  return setrlimit(RLIMIT_NPROC, &none) == 0 && (geteuid() != 0 || setuid(kNobody) == 0);
}

// Exit codes of the process below.
constexpr int kWorkedOnce = 40;
constexpr int kWorkedOtherwise = 41;
constexpr int kStillAllowed = 42;

[[noreturn]] void WorkWithoutThreads() {
  if (!AllowNoMoreThreads()) {
    std::_Exit(kStillAllowed);
  }
  std::atomic<int> runs{0};
  CTeam team(4);
  team.Together(4, [&](const std::atomic<bool>&) { ++runs; });
  std::_Exit(runs == 1 ? kWorkedOnce : kWorkedOtherwise);
}

// Notes which threads are in it, and how many at once.
class CPlace {
 public:
  void Enter() {
    const std::lock_guard lock(mutex_);
    most_ = std::max(most_.load(), ++now_);
    threads_.insert(std::this_thread::get_id());
  }
  void Leave() { --now_; }
  // Stays until so many have been in it at once.
  void WaitFor(int count) const {
    while (most_ < count) {
      std::this_thread::yield();
    }
  }
  int Most() const { return most_; }
  std::size_t Threads() const { return threads_.size(); }

 private:
  std::atomic<int> now_{0};
  std::atomic<int> most_{0};
  std::mutex mutex_;
  std::set<std::thread::id> threads_;
};

TEST(TeamTest, WorksWithAsManyThreadsAsAreUseful) {
  CPlace place;
  CTeam team(4);
  // Each waits for the others, so that none can have come after another.
  team.Together(3, [&](const std::atomic<bool>&) {
    place.Enter();
    place.WaitFor(3);
  });
  EXPECT_EQ(place.Most(), 3);
  EXPECT_EQ(place.Threads(), 3u);
}

TEST(TeamTest, WorksOnTheCallingThreadWhenNoneCanBeStarted) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(WorkWithoutThreads(), testing::ExitedWithCode(kWorkedOnce), "");
}

TEST(TeamTest, HelpsWithThePiecesOfTheLastThing) {
  constexpr int kMembers = 4;
  CPlace place;
  CTeam team(kMembers);
  std::atomic<int> pieces{8};
  const int code = ForEachNumber(kMembers, team, [&](std::size_t number) {
    if (number == 0) {
      team.Together(8, [&](const std::atomic<bool>&) {
        for (int left = pieces--; left > 0; left = pieces--) {
          place.Enter();
          place.WaitFor(left > kMembers ? kMembers : 1);  // all of them, the first of them too, come to help
          place.Leave();
        }
      });
    }
    return std::string();
  });
  EXPECT_EQ(code, kExitDone);
  EXPECT_EQ(place.Most(), kMembers);
}

// However many large things there are, no more pieces are under way than the team has members.
TEST(TeamTest, IsNeverLargerThanItIs) {
  constexpr int kMembers = 3;
  constexpr int kThings = 50;
  CPlace place;
  CTeam team(kMembers);
  std::atomic<int> done{0};
  ForEachNumber(kThings, team, [&](std::size_t) {
    std::atomic<int> pieces{4};
    team.Together(4, [&](const std::atomic<bool>&) {
      while (pieces-- > 0) {
        place.Enter();
        std::this_thread::yield();
        ++done;
        place.Leave();
      }
    });
    EXPECT_LT(pieces, 0) << "nobody is at work on them any more";
    return std::string();
  });
  EXPECT_EQ(done, kThings * 4);
  EXPECT_LE(place.Most(), kMembers);
}

TEST(TeamTest, GivesTheFirstFailureAndStops) {
  CTeam team(3);
  std::atomic<int> begun{0};
  try {
    team.Together(3, [&](const std::atomic<bool>& stop) {
      if (begun++ == 0) {
        throw std::runtime_error("first");
      }
      while (!stop) {
        std::this_thread::yield();
      }
      throw std::runtime_error("later");
    });
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "first");
  }
  // The team goes on.
  std::atomic<int> runs{0};
  team.Together(1, [&](const std::atomic<bool>& stop) { runs += stop ? 0 : 1; });
  EXPECT_EQ(runs, 1);
}

}  // namespace
}  // namespace Tansy::Cli
