#include "HostSystem/LockFile.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include "fakes/TempFolder.h"

namespace HostSystem {
namespace {

TEST(LockFileTest, ASecondTakerIsToldBusyUntilTheFirstIsGone) {
  const Tansy::Tests::CTempFolder temp;
  auto first = std::make_unique<CLockFile>();
  EXPECT_EQ(first->Take(temp.Path("lock")), 0);
  EXPECT_TRUE(first->IsTaken());
  EXPECT_EQ(temp.Read("lock"), std::to_string(::getpid()) + "\n");
  CLockFile second;
  EXPECT_EQ(second.Take(temp.Path("lock")), EBUSY);
  EXPECT_FALSE(second.IsTaken());
  first.reset();
  EXPECT_EQ(second.Take(temp.Path("lock")), 0);
}

TEST(LockFileTest, TheLockOfAKilledProcessIsFree) {
  const Tansy::Tests::CTempFolder temp;
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    CLockFile lock;
    ::_exit(lock.Take(temp.Path("lock")));
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_EQ(WEXITSTATUS(status), 0);
  CLockFile lock;
  EXPECT_EQ(lock.Take(temp.Path("lock")), 0);
}

TEST(LockFileTest, WhoeverOnlyAsksKeepsNobodyFromTakingIt) {
  const Tansy::Tests::CTempFolder temp;
  temp.Write("lock", "");
  std::atomic<bool> done{false};
  std::thread asker([&] {
    while (!done) {
      CLockFile::IsTakenByAnybody(temp.Path("lock"));
    }
  });
  int busy = 0;
  for (int i = 0; i < 500; ++i) {
    CLockFile lock;
    busy += lock.Take(temp.Path("lock")) == 0 ? 0 : 1;
  }
  done = true;
  asker.join();
  EXPECT_EQ(busy, 0);
}

TEST(LockFileTest, AMissingFolderIsAnError) {
  const Tansy::Tests::CTempFolder temp;
  CLockFile lock;
  EXPECT_EQ(lock.Take(temp.Path("none/lock")), ENOENT);
}

}  // namespace
}  // namespace HostSystem
