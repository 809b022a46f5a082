#include "TansyNet/MemoryAccount.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>
#include <utility>

namespace {

using TansyNet::CMemoryAccount;
using TansyNet::CMemoryShare;
using TansyNet::MemoryUse;

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20;

// Sets the process's limit and puts the usual one back.
class MemoryAccount : public testing::Test {
 protected:
  MemoryAccount() { account_.SetLimit(1000); }
  ~MemoryAccount() override {
    EXPECT_EQ(account_.Used(), 0U) << "every share gives back what it took";
    account_.SetLimit(CMemoryAccount::kDefaultLimit);
  }

  CMemoryAccount& account_ = CMemoryAccount::Process();
};

TEST_F(MemoryAccount, IsSharedByAll) {
  CMemoryShare first;
  CMemoryShare second;
  EXPECT_TRUE(first.Resize(600));
  EXPECT_FALSE(second.Resize(401));
  EXPECT_TRUE(second.Resize(400));
  EXPECT_EQ(account_.Used(), 1000U);
  EXPECT_TRUE(first.Resize(100));
  EXPECT_EQ(account_.Used(), 500U);
  EXPECT_FALSE(second.Resize(1001));
  EXPECT_EQ(account_.Used(), 500U);
}

TEST_F(MemoryAccount, GetsSharesBack) {
  {
    CMemoryShare first;
    EXPECT_TRUE(first.Resize(300));
    CMemoryShare moved = std::move(first);
    CMemoryShare other;
    EXPECT_TRUE(other.Resize(200));
    other = std::move(moved);
    EXPECT_EQ(account_.Used(), 500U);
  }
  EXPECT_EQ(account_.Used(), 0U);
}

TEST_F(MemoryAccount, LeavesTheOthersRoomThatSlowClientsCannotTake) {
  account_.SetLimit(1024 * kMebibyte);
  CMemoryShare arriving(MemoryUse::kArriving);
  CMemoryShare answers(MemoryUse::kAnswers);
  CMemoryShare work;
  EXPECT_FALSE(arriving.Resize(128 * kMebibyte + 1));
  EXPECT_TRUE(arriving.Resize(128 * kMebibyte));
  EXPECT_FALSE(answers.Resize(512 * kMebibyte + 1));
  EXPECT_TRUE(answers.Resize(512 * kMebibyte));
  EXPECT_FALSE(work.Resize(384 * kMebibyte + 1));
  EXPECT_TRUE(work.Resize(384 * kMebibyte));
}

TEST_F(MemoryAccount, AlwaysHasRoomForOneLargeBodyThatArrives) {
  account_.SetLimit(CMemoryAccount::kSmallestLimit);
  CMemoryShare arriving(MemoryUse::kArriving);
  EXPECT_TRUE(account_.CanEverTake(MemoryUse::kArriving, 64 * kMebibyte));
  EXPECT_TRUE(arriving.Resize(64 * kMebibyte));
  EXPECT_FALSE(account_.CanEverTake(MemoryUse::kArriving, 64 * kMebibyte + 1));
}

TEST_F(MemoryAccount, LetsBytesChangeTheirUse) {
  CMemoryShare share(MemoryUse::kArriving);
  EXPECT_TRUE(share.Resize(500));
  share.ChangeUse(MemoryUse::kWork);
  EXPECT_EQ(account_.Used(MemoryUse::kArriving), 0U);
  EXPECT_EQ(account_.Used(MemoryUse::kWork), 500U);
  EXPECT_TRUE(share.Resize(1000)) << "the part is the new one's";
}

TEST_F(MemoryAccount, IsShortWhenHalfOfAPartIsTaken) {
  CMemoryShare answers(MemoryUse::kAnswers);
  EXPECT_TRUE(answers.Resize(250));
  EXPECT_FALSE(account_.IsShort(MemoryUse::kAnswers));
  EXPECT_TRUE(answers.Resize(251));
  EXPECT_TRUE(account_.IsShort(MemoryUse::kAnswers));
  EXPECT_FALSE(account_.IsShort(MemoryUse::kArriving)) << "others have room enough";
  CMemoryShare work;
  EXPECT_TRUE(work.Resize(500));
  EXPECT_TRUE(account_.IsShort(MemoryUse::kArriving)) << "hardly anything is left of the whole";
}

TEST_F(MemoryAccount, LetsAThreadWaitForRoom) {
  CMemoryShare first(MemoryUse::kAnswers);
  CMemoryShare second(MemoryUse::kAnswers);
  EXPECT_TRUE(first.Resize(240));
  EXPECT_FALSE(second.ResizeWithin(261, 1));
  EXPECT_FALSE(account_.IsShort(MemoryUse::kAnswers));
  std::thread waiter([&] { EXPECT_TRUE(second.ResizeWithin(300, 60000)); });
  while (!account_.IsShort(MemoryUse::kAnswers)) {
    std::this_thread::yield();  // until it waits
  }
  EXPECT_TRUE(first.Resize(200));
  waiter.join();
  EXPECT_EQ(account_.Used(), 500U);
}

}  // namespace
