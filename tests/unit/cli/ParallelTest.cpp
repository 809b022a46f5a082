#include "Parallel.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>

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
  RunOnThreads(4, [&] { ++runs; });
  std::_Exit(runs == 1 ? kWorkedOnce : kWorkedOtherwise);
}

TEST(ParallelTest, RunsOnAsManyThreadsAsAsked) {
  std::atomic<int> runs{0};
  // Each waits for the others, so that none can have run after another.
  RunOnThreads(3, [&] {
    ++runs;
    while (runs < 3) {
      std::this_thread::yield();
    }
  });
  EXPECT_EQ(runs, 3);
}

TEST(ParallelTest, WorksOnTheCallingThreadWhenNoneCanBeStarted) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(WorkWithoutThreads(), testing::ExitedWithCode(kWorkedOnce), "");
}

}  // namespace
}  // namespace Tansy::Cli
