#include "HostSystem/LockFile.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
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

TEST(LockFileTest, SharersLetEachOtherInAndKeepOutWhoWantsItAlone) {
  const Tansy::Tests::CTempFolder temp;
  auto first = std::make_unique<CLockFile>();
  EXPECT_EQ(first->Share(temp.Path("lock")), 0);
  EXPECT_TRUE(CLockFile::IsTakenByAnybody(temp.Path("lock")));
  auto second = std::make_unique<CLockFile>();
  EXPECT_EQ(second->Share(temp.Path("lock")), 0);
  CLockFile alone;
  EXPECT_EQ(alone.Take(temp.Path("lock")), EBUSY);
  first.reset();
  EXPECT_EQ(alone.Take(temp.Path("lock")), EBUSY);
  second.reset();
  EXPECT_FALSE(CLockFile::IsTakenByAnybody(temp.Path("lock")));
  EXPECT_EQ(alone.Take(temp.Path("lock")), 0);
  EXPECT_EQ(CLockFile().Share(temp.Path("lock")), EBUSY);
}

TEST(LockFileTest, WhatCannotBeLookedAtIsNotCalledFree) {
  const Tansy::Tests::CTempFolder temp;
  bool is_taken = true;
  EXPECT_EQ(CLockFile::Look(temp.Path("lock"), is_taken), 0);
  EXPECT_FALSE(is_taken) << "it is missing";
  {
    CLockFile lock;
    EXPECT_EQ(lock.Take(temp.Path("lock")), 0);
    EXPECT_EQ(CLockFile::Look(temp.Path("lock"), is_taken), 0);
    EXPECT_TRUE(is_taken);
  }
  EXPECT_EQ(CLockFile::Look(temp.Path("lock"), is_taken), 0);
  EXPECT_FALSE(is_taken);
  std::filesystem::create_symlink(temp.Path("lock"), temp.Path("link"));
  EXPECT_EQ(CLockFile::Look(temp.Path("link"), is_taken), ELOOP) << "links are not followed";
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

// Counts the descriptors of this process that are open for a path, also of a file that was removed since.
int CountOpen(const std::string& path) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    count += std::filesystem::read_symlink(entry.path(), gone).string().starts_with(path) ? 1 : 0;
  }
  return count;
}

// The second one opens the file before the first one removes it.
TEST(LockFileTest, WhoWaitedForAFileThatIsRemovedHoldsTheNewOne) {
  const Tansy::Tests::CTempFolder temp;
  const std::string path = std::filesystem::canonical(temp.GetPath()).string() + "/lock";
  std::atomic<bool> is_taken{false};
  // On a loaded machine the second one may give up before it is seen to wait.
  while (!is_taken) {
    auto first = std::make_unique<CLockFile>();
    ASSERT_EQ(first->Take(path), 0);
    CLockFile second;
    std::atomic<bool> is_over{false};
    std::thread waiter([&] {
      is_taken = second.Take(path) == 0;
      is_over = true;
    });
    while (!is_over && CountOpen(path) < 2) {
      std::this_thread::yield();
    }
    std::filesystem::remove(path);
    first.reset();
    waiter.join();
    CLockFile third;
    EXPECT_EQ(third.Take(path), is_taken ? EBUSY : 0);
  }
}

TEST(LockFileTest, AMissingFolderIsAnError) {
  const Tansy::Tests::CTempFolder temp;
  CLockFile lock;
  EXPECT_EQ(lock.Take(temp.Path("none/lock")), ENOENT);
}

}  // namespace
}  // namespace HostSystem
