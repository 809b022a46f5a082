#include "db_layer/GroupCommit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "db_layer/WriteCounts.h"

namespace db_layer {
namespace {

void SucceedAll(const std::vector<SqlWrite*>& batch) {
  for (SqlWrite* write : batch) {
    write->succeeded = true;
  }
}

// Makes two batches of some writes: the first write alone, and the others, which come while it runs.
class CTwoBatches {
 public:
  // Each batch has to call this; the first one waits here until the others have come.
  void HoldFirst() {
    if (!held_) {
      held_ = true;
      first_runs_.set_value();
      go_on_.get_future().wait();
    }
  }

  void Run(CGroupCommit& group, std::vector<SqlWrite>& writes) {
    std::vector<std::thread> threads;
    threads.emplace_back([&] { group.Run(writes[0]); });
    first_runs_.get_future().wait();
    for (std::size_t i = 1; i < writes.size(); ++i) {
      threads.emplace_back([&, i] { group.Run(writes[i]); });
    }
    while (group.CountWaiting() < writes.size() - 1) {
      std::this_thread::yield();
    }
    go_on_.set_value();
    for (auto& thread : threads) {
      thread.join();
    }
  }

 private:
  bool held_ = false;
  std::promise<void> first_runs_;
  std::promise<void> go_on_;
};

TEST(GroupCommitTest, CallerAloneRunsAtOnceOnItsOwnThread) {
  std::thread::id runner;
  std::size_t size = 0;
  CGroupCommit group([&](const std::vector<SqlWrite*>& batch) {
    runner = std::this_thread::get_id();
    size = batch.size();
    SucceedAll(batch);
  });
  SqlWrite write;
  group.Run(write);
  EXPECT_TRUE(write.succeeded);
  EXPECT_EQ(runner, std::this_thread::get_id());
  EXPECT_EQ(size, 1U);
}

TEST(GroupCommitTest, WhoComesDuringABatchMakesUpTheNext) {
  CTwoBatches two;
  std::vector<std::size_t> sizes;
  CGroupCommit group([&](const std::vector<SqlWrite*>& batch) {
    two.HoldFirst();
    sizes.push_back(batch.size());
    SucceedAll(batch);
  });

  std::vector<SqlWrite> writes(8);
  two.Run(group, writes);

  EXPECT_EQ(sizes, (std::vector<std::size_t>{1, 7}));
  for (const auto& write : writes) {
    EXPECT_TRUE(write.succeeded);
  }
}

TEST(GroupCommitTest, CountsGroupsAndTheWritesInThem) {
  CTwoBatches batches;
  CGroupCommit group([&](const std::vector<SqlWrite*>& batch) {
    batches.HoldFirst();
    SucceedAll(batch);
  });
  const WriteCounts before = CountedWrites();
  std::vector<SqlWrite> writes(4);
  batches.Run(group, writes);
  const WriteCounts after = CountedWrites();
  EXPECT_EQ(after.groups - before.groups, 2U);
  EXPECT_EQ(after.writes - before.writes, 4U);
  EXPECT_GT(after.nanoseconds, before.nanoseconds);
}

TEST(GroupCommitTest, EachCallerGetsItsOwnOutcome) {
  CGroupCommit group([](const std::vector<SqlWrite*>& batch) {
    for (SqlWrite* write : batch) {
      write->error = {static_cast<int>(write->statements->size()), write->statements->front()};
    }
  });
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&, thread] {
      for (int round = 0; round < 500; ++round) {
        const std::string text = std::to_string(thread) + "." + std::to_string(round);
        const std::vector<std::string> statements(static_cast<std::size_t>(1 + thread), text);
        SqlWrite write;
        write.statements = &statements;
        group.Run(write);
        wrong += write.error.text == text && write.error.code == 1 + thread ? 0 : 1;
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

// Writers that wait are told of the failure, and the next writer is served.
TEST(GroupCommitTest, MemoryThatRunsOutFailsTheBatchAndHoldsNobodyUp) {
  CTwoBatches two;
  int batches = 0;
  CGroupCommit group([&](const std::vector<SqlWrite*>& batch) {
    two.HoldFirst();
    SucceedAll(batch);
    if (++batches <= 2) {
      throw std::bad_alloc();
    }
  });

  std::vector<SqlWrite> writes(4);
  two.Run(group, writes);

  EXPECT_EQ(batches, 2);
  for (const auto& write : writes) {
    EXPECT_FALSE(write.succeeded);
    EXPECT_EQ(write.error.code, 7) << "SQLITE_NOMEM";
    EXPECT_EQ(write.error.text, "out of memory");
  }
  SqlWrite next;
  group.Run(next);
  EXPECT_TRUE(next.succeeded);
}

// A write that is posted, and how often it was reported.
class CPosted {
 public:
  std::unique_ptr<PostedWrite> Write(const std::string& statement = "x") {
    auto write = std::make_unique<PostedWrite>();
    write->statements = {statement};
    write->done = [this](const WriteResult& result) {
      ++reports_;
      succeeded_ += result.succeeded ? 1 : 0;
      const std::lock_guard lock(mutex_);
      last_error_ = result.error;
    };
    return write;
  }
  void Post(CGroupCommit& group) {
    auto write = Write();
    group.Post(write);
  }
  int Reports() const { return reports_; }
  int Succeeded() const { return succeeded_; }
  std::string LastError() const {
    const std::lock_guard lock(mutex_);
    return last_error_;
  }

 private:
  std::atomic<int> reports_{0};
  std::atomic<int> succeeded_{0};
  mutable std::mutex mutex_;
  std::string last_error_;
};

TEST(GroupCommitTest, APostedWriteAloneIsDoneAtOnce) {
  CPosted posted;
  CGroupCommit group(&SucceedAll);
  posted.Post(group);
  EXPECT_EQ(posted.Reports(), 1);
  EXPECT_EQ(posted.Succeeded(), 1);
}

// Whoever posts while a batch runs goes on at once, and what was posted shares the next batch.
TEST(GroupCommitTest, WhatIsPostedDuringABatchMakesUpTheNext) {
  CPosted posted;
  std::vector<std::size_t> sizes;
  std::atomic<int> reports_while_held{-1};
  CGroupCommit group([&](const std::vector<SqlWrite*>& batch) {
    sizes.push_back(batch.size());
    if (sizes.size() == 1) {
      std::thread others([&] {
        for (int i = 0; i < 10; ++i) {
          posted.Post(group);
        }
        reports_while_held = posted.Reports();
      });
      others.join();
    }
    SucceedAll(batch);
  });
  posted.Post(group);
  EXPECT_EQ(reports_while_held, 0);
  EXPECT_EQ(sizes, (std::vector<std::size_t>{1, 10}));
  EXPECT_EQ(posted.Succeeded(), 11);
}

TEST(GroupCommitTest, AWaitingCallerTakesPostedWritesAlong) {
  CPosted posted;
  std::vector<std::size_t> sizes;
  std::thread waits;
  SqlWrite write;
  CGroupCommit group([&](const std::vector<SqlWrite*>& batch) {
    sizes.push_back(batch.size());
    if (sizes.size() == 1) {
      waits = std::thread([&] { group.Run(write); });
      std::thread([&] { posted.Post(group); }).join();
      while (group.CountWaiting() < 2) {
        std::this_thread::yield();
      }
    }
    SucceedAll(batch);
  });
  posted.Post(group);
  waits.join();
  EXPECT_EQ(sizes, (std::vector<std::size_t>{1, 2}));
  EXPECT_TRUE(write.succeeded);
  EXPECT_EQ(posted.Succeeded(), 2);
}

TEST(GroupCommitTest, MemoryThatRunsOutFailsPostedWrites) {
  CPosted posted;
  CGroupCommit group([](const std::vector<SqlWrite*>& batch) {
    SucceedAll(batch);
    throw std::bad_alloc();
  });
  posted.Post(group);
  EXPECT_EQ(posted.Reports(), 1);
  EXPECT_EQ(posted.Succeeded(), 0);
  EXPECT_EQ(posted.LastError(), "out of memory");
}

// Somebody waits for the thread of whoever runs a write, so it must not be kept for what others post without a pause.
TEST(GroupCommitTest, WhoeverWaitsForAWriteIsNotKeptForThoseOfOthers) {
  constexpr int kMostBatches = 200;
  CPosted posted;
  std::mutex mutex;  // for the next three
  bool is_back = false;
  int batches = 0;
  std::vector<std::thread> posters;
  CGroupCommit* itself = nullptr;
  CGroupCommit group([&](const std::vector<SqlWrite*>& batch) {
    SucceedAll(batch);
    {
      const std::lock_guard lock(mutex);
      if (is_back || ++batches == kMostBatches) {
        return;
      }
      posters.emplace_back([&] { posted.Post(*itself); });
    }
    while (itself->CountWaiting() == 0) {
      std::this_thread::yield();
    }
  });
  itself = &group;
  SqlWrite write;
  group.Run(write);
  {
    const std::lock_guard lock(mutex);
    is_back = true;
  }
  EXPECT_TRUE(write.succeeded);
  EXPECT_LT(batches, kMostBatches) << "it led all the time";
  for (std::thread& poster : posters) {
    poster.join();
  }
  EXPECT_EQ(posted.Succeeded(), static_cast<int>(posters.size())) << "the last poster leads to the end";
}

// Those who wait and those who do not, at once: each is told once.
TEST(GroupCommitTest, EachPostedWriteIsReportedOnce) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 500;
  CPosted posted;
  std::atomic<int> running{0};
  std::atomic<int> overlaps{0};
  std::atomic<std::size_t> total{0};
  CGroupCommit group([&](const std::vector<SqlWrite*>& batch) {
    overlaps += ++running > 1 ? 1 : 0;
    total += batch.size();
    SucceedAll(batch);
    --running;
  });
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        posted.Post(group);
        posted.Post(group);
        SqlWrite write;
        group.Run(write);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(total, std::size_t{3 * kThreads * kRounds});
  EXPECT_EQ(posted.Succeeded(), 2 * kThreads * kRounds);
}

TEST(GroupCommitTest, OneBatchAtATime) {
  std::atomic<int> running{0};
  std::atomic<int> overlaps{0};
  std::atomic<std::size_t> total{0};
  CGroupCommit group([&](const std::vector<SqlWrite*>& batch) {
    overlaps += ++running > 1 ? 1 : 0;
    total += batch.size();
    SucceedAll(batch);
    --running;
  });
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&] {
      for (int round = 0; round < 1000; ++round) {
        SqlWrite write;
        group.Run(write);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(total, 8000U);
}

}  // namespace
}  // namespace db_layer
