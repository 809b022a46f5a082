#include "db_layer/SqliteCheckpoints.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "SqliteFixture.h"
#include "fakes/FailingAllocation.h"

namespace db_layer {
namespace {

// Remembers who copied, and whether somebody could have committed meanwhile.
class SqliteCheckpoints : public testing::Test {
 protected:
  struct Call {
    std::thread::id thread;
    bool writing_is_free = false;
  };

  int Copy() {
    Call call{std::this_thread::get_id(), false};
    std::thread([&] {
      call.writing_is_free = writing_.try_lock();
      if (call.writing_is_free) {
        writing_.unlock();
      }
    }).join();
    const std::lock_guard lock(mutex_);
    calls_.push_back(call);
    changed_.notify_all();
    return left_;
  }
  bool AwaitCalls(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return calls_.size() >= count; });
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Call> calls_;
  int left_ = 0;
  std::mutex writing_;
};

TEST_F(SqliteCheckpoints, LeaveAShortLogAlone) {
  {
    CSqliteCheckpoints checkpoints([this] { return Copy(); }, writing_);
    checkpoints.Note(CSqliteCheckpoints::kWorthwhile - 1);
  }
  EXPECT_TRUE(calls_.empty());
}

TEST_F(SqliteCheckpoints, CopyOnAThreadOfTheirOwnWhileOthersWrite) {
  CSqliteCheckpoints checkpoints([this] { return Copy(); }, writing_);
  for (std::size_t round = 1; round <= 3; ++round) {
    checkpoints.Note(CSqliteCheckpoints::kWorthwhile);
    ASSERT_TRUE(AwaitCalls(round));
  }
  const std::lock_guard lock(mutex_);
  for (const Call& call : calls_) {
    EXPECT_NE(call.thread, std::this_thread::get_id());
    EXPECT_TRUE(call.writing_is_free);
  }
}

TEST_F(SqliteCheckpoints, CopyTheRestOfALongLogBetweenTwoCommits) {
  left_ = 100;
  CSqliteCheckpoints checkpoints([this] { return Copy(); }, writing_);
  checkpoints.Note(CSqliteCheckpoints::kLong);
  ASSERT_TRUE(AwaitCalls(3));
  const std::lock_guard lock(mutex_);
  EXPECT_TRUE(calls_[0].writing_is_free);
  EXPECT_TRUE(calls_[1].writing_is_free);
  EXPECT_FALSE(calls_[2].writing_is_free) << "somebody could add to the log all the time";
}

TEST_F(SqliteCheckpoints, ALongLogThatWasCopiedWhollyStopsNobody) {
  {
    CSqliteCheckpoints checkpoints([this] { return Copy(); }, writing_);
    checkpoints.Note(CSqliteCheckpoints::kLong);
    ASSERT_TRUE(AwaitCalls(1));
  }
  EXPECT_EQ(calls_.size(), 1u);
}

// A slow disk: whoever adds to the log while it is being copied waits once it is too long.
TEST_F(SqliteCheckpoints, WritersWaitForTheEndOfACopyWhenTheLogIsTooLong) {
  std::promise<void> may_end;
  std::shared_future<void> end = may_end.get_future().share();
  std::atomic<bool> has_ended{false};
  CSqliteCheckpoints checkpoints(
      [&] {
        end.wait();
        has_ended = true;
        return 0;
      },
      writing_);
  checkpoints.WaitForRoom();
  checkpoints.Note(CSqliteCheckpoints::kTooLong - 1);
  checkpoints.WaitForRoom();
  EXPECT_FALSE(has_ended);
  checkpoints.Note(CSqliteCheckpoints::kTooLong);
  std::thread ender([&may_end] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    may_end.set_value();
  });
  checkpoints.WaitForRoom();
  EXPECT_TRUE(has_ended);
  ender.join();
}

// Somebody who reads the log for hours keeps it from being copied wholly; writers do not wait for each try.
TEST_F(SqliteCheckpoints, ALogThatCannotBeCopiedHoldsNobodyUpForLong) {
  for (const int left : {-1, 5}) {
    std::atomic<int> copies{0};
    std::promise<void> never;
    std::shared_future<void> held = never.get_future().share();
    CSqliteCheckpoints checkpoints(
        [&] {
          if (++copies > 3) {
            held.wait();
          }
          return left;
        },
        writing_);
    checkpoints.Note(CSqliteCheckpoints::kTooLong);
    checkpoints.WaitForRoom();
    checkpoints.Note(CSqliteCheckpoints::kTooLong + 1);
    checkpoints.WaitForRoom();
    never.set_value();
  }
}

TEST_F(SqliteCheckpoints, WithoutAThreadTheWriterCopies) {
  CSqliteCheckpoints checkpoints([this] { return Copy(); }, writing_);
  {
    const Tansy::Tests::CFailingAllocation failing(1);
    checkpoints.Note(CSqliteCheckpoints::kWorthwhile);
  }
  ASSERT_EQ(calls_.size(), 1u);
  EXPECT_EQ(calls_[0].thread, std::this_thread::get_id());
  checkpoints.Note(CSqliteCheckpoints::kWorthwhile);
  ASSERT_TRUE(AwaitCalls(2));
  const std::lock_guard lock(mutex_);
  EXPECT_NE(calls_[1].thread, std::this_thread::get_id()) << "asked for a thread again";
}

class SqliteLog : public CSqliteFixture {
 protected:
  void SetUp() override { MakeSchema(); }

  std::uintmax_t LogBytes() const {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path_ + "-wal", error);
    return error ? 0 : size;
  }
  bool InsertBig(int id) {
    return connection_->Execute("INSERT INTO platform.item (id, name) VALUES (" + std::to_string(id) +
                                ", hex(zeroblob(20000)))");
  }
};

// Writing goes on without a pause, so the log is never copied wholly while others write.
TEST_F(SqliteLog, StaysShortUnderWritesWithoutAPause) {
  constexpr std::uintmax_t kPage = 4096 + 24;
  std::uintmax_t longest = 0;
  int id = 0;
  while (id < 4 * CSqliteCheckpoints::kTooLong / 10) {  // ten pages each
    ASSERT_TRUE(InsertBig(++id)) << ErrorOf(*connection_);
    longest = std::max(longest, LogBytes());
  }
  EXPECT_LT(longest, 3 * CSqliteCheckpoints::kTooLong / 2 * kPage);
  EXPECT_EQ(Count(*connection_, "platform.item"), id);
}

TEST_F(SqliteLog, IsGoneAfterACleanEnd) {
  for (int id = 1; id <= 2 * CSqliteCheckpoints::kWorthwhile / 10; ++id) {
    ASSERT_TRUE(InsertBig(id));
  }
  EXPECT_GT(LogBytes(), 0u);
  connection_.reset();
  EXPECT_FALSE(std::filesystem::exists(path_ + "-wal"));
  connection_ = OpenSqlite(path_);
  EXPECT_EQ(Count(*connection_, "platform.item"), 2 * CSqliteCheckpoints::kWorthwhile / 10);
}

}  // namespace
}  // namespace db_layer
