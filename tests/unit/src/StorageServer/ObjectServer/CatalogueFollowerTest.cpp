// What a round of the follower proves, and to whom.
#include "StorageServer/ObjectServer/CatalogueFollower.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

namespace Tansy::CloudStorage {
namespace {

using std::chrono::milliseconds;

// A database whose answers the test gives.
class CScriptedRounds {
 public:
  bool Round() {
    std::unique_lock<std::mutex> lock(mutex_);
    const int number = ++begun_;
    changed_.notify_all();
    changed_.wait(lock, [this, number] { return number < held_from_; });
    return succeeds_;
  }
  // Rounds that begin from now on wait until Release.
  void Hold() {
    const std::lock_guard<std::mutex> lock(mutex_);
    held_from_ = begun_ + 1;
  }
  void Release() {
    const std::lock_guard<std::mutex> lock(mutex_);
    held_from_ = kNone;
    changed_.notify_all();
  }
  // Lets the round go on that waits, and holds the next one.
  void HoldNext() {
    const std::lock_guard<std::mutex> lock(mutex_);
    held_from_ = begun_ + 1;
    changed_.notify_all();
  }
  void SetSucceeds(bool succeeds) {
    const std::lock_guard<std::mutex> lock(mutex_);
    succeeds_ = succeeds;
  }
  int Begun() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return begun_;
  }
  void WaitFor(int number) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this, number] { return begun_ >= number; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  static constexpr int kNone = 1000000;
  int held_from_ = kNone;  // number of the first round that waits
  bool succeeds_ = true;
  int begun_ = 0;
};

class CatalogueFollowerTest : public testing::Test {
 protected:
  ~CatalogueFollowerTest() override {
    rounds_.Release();
    follower_.reset();
  }

  // Nothing happens by itself, unless times say so.
  static CCatalogueFollower::Times Slow() {
    return {std::chrono::hours(1), std::chrono::hours(1), std::chrono::minutes(1), milliseconds(1)};
  }
  void Start(const CCatalogueFollower::Times& times = Slow()) {
    follower_ = std::make_unique<CCatalogueFollower>([this] { return rounds_.Round(); }, times);
  }

  // Returns when a round has begun and waits.
  void HoldARound() {
    const int before = rounds_.Begun();
    rounds_.Hold();
    follower_->Wake();
    rounds_.WaitFor(before + 1);
  }

  CScriptedRounds rounds_;
  std::unique_ptr<CCatalogueFollower> follower_;
};

TEST_F(CatalogueFollowerTest, MemoryIsFreshAfterARoundThatEndedWell) {
  rounds_.SetSucceeds(false);
  Start();
  EXPECT_FALSE(follower_->IsFresh());
  EXPECT_FALSE(follower_->CatchUp());
  EXPECT_FALSE(follower_->IsFresh());
  rounds_.SetSucceeds(true);
  EXPECT_TRUE(follower_->CatchUp());
  EXPECT_TRUE(follower_->IsFresh());
}

TEST_F(CatalogueFollowerTest, ARoundThatHadBegunBeforeProvesNothing) {
  Start();
  ASSERT_TRUE(follower_->CatchUp());
  HoldARound();
  const int before = rounds_.Begun();
  std::future<bool> caught_up = std::async(std::launch::async, [this] { return follower_->CatchUp(); });
  std::atomic<int> called{0};
  follower_->WhenCaughtUp([&called] { ++called; });
  EXPECT_EQ(caught_up.wait_for(milliseconds(50)), std::future_status::timeout);
  EXPECT_EQ(called, 0);
  rounds_.Release();
  EXPECT_TRUE(caught_up.get());
  EXPECT_GE(rounds_.Begun(), before + 1);
  EXPECT_TRUE(follower_->CatchUp());
  EXPECT_EQ(called, 1);
}

// The age counts from the beginning of a round, because what was committed during it may be missing.
TEST_F(CatalogueFollowerTest, MemoryGrowsOldFromTheBeginningOfARound) {
  CCatalogueFollower::Times times = Slow();
  times.most_lag = milliseconds(200);
  Start(times);
  ASSERT_TRUE(follower_->CatchUp());
  HoldARound();
  const auto begun = CCatalogueFollower::Clock::now();
  while (CCatalogueFollower::Clock::now() - begun <= times.most_lag) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(follower_->IsFresh());
  std::atomic<bool> is_over{false};
  rounds_.SetSucceeds(true);
  follower_->WhenCaughtUp([&is_over] { is_over = true; });
  const int next = rounds_.Begun() + 1;
  rounds_.HoldNext();
  rounds_.WaitFor(next);
  // The first of the two rounds has ended well by now, and proves nothing about the last 200 ms.
  EXPECT_FALSE(follower_->IsFresh());
}

TEST_F(CatalogueFollowerTest, WhatHasWaitedDoesNotWaitForItself) {
  Start();
  std::promise<bool> answer;
  follower_->WhenCaughtUp([this, &answer] { answer.set_value(follower_->CatchUp()); });
  EXPECT_TRUE(answer.get_future().get());
}

TEST_F(CatalogueFollowerTest, ManyWhoWaitShareARound) {
  Start();
  ASSERT_TRUE(follower_->CatchUp());
  HoldARound();
  const int before = rounds_.Begun();
  constexpr int kMany = 50;
  std::atomic<int> called{0};
  for (int i = 0; i < kMany; ++i) {
    follower_->WhenCaughtUp([&called] { ++called; });
  }
  rounds_.Release();
  while (called < kMany) {
    std::this_thread::yield();
  }
  EXPECT_EQ(rounds_.Begun(), before + 1);
}

TEST_F(CatalogueFollowerTest, WhatWaitsForAFailingDatabaseGoesOnWhenNobodyReadsMemoryAnyMore) {
  CCatalogueFollower::Times times = Slow();
  times.period = milliseconds(1);
  times.most_lag = std::chrono::hours(1);
  Start(times);
  ASSERT_TRUE(follower_->CatchUp());
  rounds_.SetSucceeds(false);
  std::atomic<bool> called{false};
  follower_->WhenCaughtUp([&called] { called = true; });
  rounds_.WaitFor(rounds_.Begun() + 5);
  EXPECT_FALSE(called);  // somebody may still read memory
  EXPECT_TRUE(follower_->IsFresh());
  follower_.reset();
  EXPECT_TRUE(called);  // now nobody does

  times.most_lag = milliseconds(50);
  rounds_.SetSucceeds(true);
  Start(times);
  ASSERT_TRUE(follower_->CatchUp());
  rounds_.SetSucceeds(false);
  called = false;
  follower_->WhenCaughtUp([&called] { called = true; });
  while (!called) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(follower_->IsFresh());
}

TEST_F(CatalogueFollowerTest, NobodyWaitsLongForASilentDatabase) {
  CCatalogueFollower::Times times = Slow();
  times.patience = milliseconds(50);
  Start(times);
  ASSERT_TRUE(follower_->CatchUp());
  rounds_.Hold();
  EXPECT_FALSE(follower_->CatchUp());
  // The round has taken longer than anybody should wait, so the next one who asks is told at once.
  const auto begin = CCatalogueFollower::Clock::now();
  for (int i = 0; i < 1000; ++i) {
    EXPECT_FALSE(follower_->CatchUp());
  }
  EXPECT_LT(CCatalogueFollower::Clock::now() - begin, 1000 * times.patience);
}

TEST_F(CatalogueFollowerTest, RoundsComeByThemselvesAndWhenItIsWoken) {
  Start();
  follower_->Wake();
  rounds_.WaitFor(1);
  follower_.reset();
  CCatalogueFollower::Times times = Slow();
  times.period = milliseconds(1);
  Start(times);
  rounds_.WaitFor(4);
}

}  // namespace
}  // namespace Tansy::CloudStorage
