#include "db_layer/ConnectionPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ScriptedDriver.h"

namespace db_layer {
namespace {

using std::chrono::milliseconds;

DBParam Limits(int min, int max) {
  DBParam param;
  param.min_connections = min;
  param.max_connections = max;
  return param;
}

class ConnectionPoolTest : public testing::Test {
 protected:
  std::shared_ptr<CScriptedDriver> driver_ = std::make_shared<CScriptedDriver>();
  std::string error_;
};

TEST_F(ConnectionPoolTest, FillOpensTheLeastNumber) {
  CConnectionPool pool(Limits(4, 16), driver_);
  EXPECT_TRUE(pool.Fill(error_));
  EXPECT_EQ(driver_->opened, 4);
  EXPECT_TRUE(pool.Fill(error_));
  EXPECT_EQ(driver_->opened, 4);
}

TEST_F(ConnectionPoolTest, FillNeverOpensMoreThanAllowed) {
  CConnectionPool pool(Limits(10, 3), driver_);
  EXPECT_TRUE(pool.Fill(error_));
  EXPECT_EQ(driver_->opened, 3);
}

TEST_F(ConnectionPoolTest, FillFailsWithTheDriversWords) {
  driver_->fails_after = 2;
  CConnectionPool pool(Limits(4, 16), driver_);
  EXPECT_FALSE(pool.Fill(error_));
  EXPECT_EQ(error_, "connection refused");
  driver_->fails_after = -1;
  EXPECT_TRUE(pool.Fill(error_));
  EXPECT_EQ(driver_->living, 4);
}

TEST_F(ConnectionPoolTest, NonsensicalLimitsStillGiveOneConnection) {
  CConnectionPool pool(Limits(-5, 0), driver_);
  EXPECT_TRUE(pool.Fill(error_));
  EXPECT_EQ(driver_->opened, 1);
  EXPECT_TRUE(pool.Take(milliseconds(0), error_).connection);
}

TEST_F(ConnectionPoolTest, ConnectionsAreUsedAgain) {
  CConnectionPool pool(Limits(1, 16), driver_);
  for (int i = 0; i < 10; ++i) {
    auto lease = pool.Take(milliseconds(0), error_);
    ASSERT_TRUE(lease.connection);
    pool.Return(std::move(lease));
  }
  EXPECT_EQ(driver_->opened, 1);
}

TEST_F(ConnectionPoolTest, BeyondTheLimitACallerWaitsAndGivesUp) {
  CConnectionPool pool(Limits(1, 2), driver_);
  auto first = pool.Take(milliseconds(0), error_);
  auto second = pool.Take(milliseconds(0), error_);
  ASSERT_TRUE(first.connection && second.connection);
  EXPECT_FALSE(pool.Take(milliseconds(20), error_).connection);
  EXPECT_EQ(error_, "all connections are in use");
  pool.Return(std::move(first));
  EXPECT_TRUE(pool.Take(milliseconds(0), error_).connection);
}

TEST_F(ConnectionPoolTest, WhoWaitsGetsWhatComesBack) {
  CConnectionPool pool(Limits(1, 1), driver_);
  auto lease = pool.Take(milliseconds(0), error_);
  std::atomic<bool> served{false};
  std::thread waiter([&] {
    std::string error;
    auto late = pool.Take(std::chrono::seconds(30), error);
    served = late.connection != nullptr;
    pool.Return(std::move(late));
  });
  while (pool.CountWaiting() == 0) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(served);
  pool.Return(std::move(lease));
  waiter.join();
  EXPECT_TRUE(served);
}

TEST_F(ConnectionPoolTest, FirstComeFirstServed) {
  constexpr std::size_t kWaiters = 8;
  CConnectionPool pool(Limits(1, 1), driver_);
  auto lease = pool.Take(milliseconds(0), error_);
  std::mutex mutex;
  std::vector<std::size_t> order;
  std::vector<std::thread> waiters;
  for (std::size_t i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&, i] {
      std::string error;
      auto late = pool.Take(std::chrono::seconds(30), error);
      {
        const std::lock_guard lock(mutex);
        order.push_back(i);
      }
      pool.Return(std::move(late));
    });
    while (pool.CountWaiting() <= i) {
      std::this_thread::yield();
    }
  }
  pool.Return(std::move(lease));
  for (auto& waiter : waiters) {
    waiter.join();
  }
  std::vector<std::size_t> expected(kWaiters);
  for (std::size_t i = 0; i < kWaiters; ++i) {
    expected[i] = i;
  }
  EXPECT_EQ(order, expected);
}

TEST_F(ConnectionPoolTest, WhoGivesUpLeavesTheTurnToTheNext) {
  CConnectionPool pool(Limits(1, 1), driver_);
  auto lease = pool.Take(milliseconds(0), error_);
  std::thread impatient([&] {
    std::string error;
    EXPECT_FALSE(pool.Take(milliseconds(50), error).connection);
  });
  while (pool.CountWaiting() < 1) {
    std::this_thread::yield();
  }
  std::thread patient([&] {
    std::string error;
    EXPECT_TRUE(pool.Take(std::chrono::seconds(30), error).connection);
  });
  impatient.join();
  pool.Return(std::move(lease));
  patient.join();
}

TEST_F(ConnectionPoolTest, BrokenConnectionsAreReplaced) {
  CConnectionPool pool(Limits(2, 2), driver_);
  ASSERT_TRUE(pool.Fill(error_));
  driver_->BreakAll();  // while idle
  auto first = pool.Take(milliseconds(0), error_);
  auto second = pool.Take(milliseconds(0), error_);
  ASSERT_TRUE(first.connection && second.connection);
  EXPECT_TRUE(first.connection->IsHealthy() && second.connection->IsHealthy());
  EXPECT_EQ(driver_->living, 2);

  driver_->BreakAll();  // while out
  pool.Return(std::move(first));
  pool.Return(std::move(second));
  EXPECT_EQ(driver_->living, 0);
  EXPECT_TRUE(pool.Take(milliseconds(0), error_).connection);
}

TEST_F(ConnectionPoolTest, ConnectionThatDoesNotOpenLeavesRoomForTheNextTry) {
  CConnectionPool pool(Limits(1, 1), driver_);
  driver_->fails_after = 0;
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(pool.Take(milliseconds(0), error_).connection);
    EXPECT_EQ(error_, "connection refused");
  }
  driver_->fails_after = -1;
  EXPECT_TRUE(pool.Take(milliseconds(0), error_).connection);
}

TEST_F(ConnectionPoolTest, ErrorsHoldNeitherThePasswordNorLineEnds) {
  DBParam param = Limits(1, 1);
  param.password = "s3cret";
  driver_->fails_after = 0;
  driver_->refusal = "login failed\nfor user:s3cret@host s3crets3cret";
  CConnectionPool pool(param, driver_);
  EXPECT_FALSE(pool.Fill(error_));
  EXPECT_EQ(error_, "login failed for user:***@host ******");
}

TEST_F(ConnectionPoolTest, ResetClosesOldConnectionsAsTheyComeBack) {
  CConnectionPool pool(Limits(2, 4), driver_);
  ASSERT_TRUE(pool.Fill(error_));
  auto out = pool.Take(milliseconds(0), error_);
  DBParam changed = Limits(1, 4);
  changed.database = "other";
  pool.Reset(changed, driver_);
  EXPECT_EQ(driver_->living, 1);
  EXPECT_TRUE(out.connection->IsHealthy());

  auto fresh = pool.Take(milliseconds(0), error_);
  EXPECT_EQ(driver_->last_database, "other");
  pool.Return(std::move(out));
  EXPECT_EQ(driver_->living, 1);
  pool.Return(std::move(fresh));
  EXPECT_EQ(driver_->living, 1);
}

TEST_F(ConnectionPoolTest, OldConnectionsCountUntilTheyAreBack) {
  CConnectionPool pool(Limits(1, 1), driver_);
  auto out = pool.Take(milliseconds(0), error_);
  pool.Reset(Limits(1, 1), driver_);
  EXPECT_FALSE(pool.Take(milliseconds(10), error_).connection);
  pool.Return(std::move(out));
  EXPECT_TRUE(pool.Take(milliseconds(0), error_).connection);
}

TEST_F(ConnectionPoolTest, CloseWaitsForTheLastConnection) {
  CConnectionPool pool(Limits(2, 2), driver_);
  ASSERT_TRUE(pool.Fill(error_));
  auto out = pool.Take(milliseconds(0), error_);
  std::atomic<bool> closed{false};
  std::thread closer([&] {
    pool.Close(std::chrono::seconds(30));
    EXPECT_EQ(driver_->living, 0);
    closed = true;
  });
  while (driver_->living > 1) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(closed);
  pool.Return(std::move(out));
  closer.join();
}

TEST_F(ConnectionPoolTest, ClosedPoolGivesNothingAndSendsWaitersHome) {
  CConnectionPool pool(Limits(1, 1), driver_);
  auto out = pool.Take(milliseconds(0), error_);
  std::thread waiter([&] {
    std::string error;
    EXPECT_FALSE(pool.Take(std::chrono::seconds(30), error).connection);
    EXPECT_EQ(error, "the module is not registered any more");
  });
  while (pool.CountWaiting() == 0) {
    std::this_thread::yield();
  }
  pool.Close(milliseconds(0));
  waiter.join();
  pool.Return(std::move(out));
  EXPECT_EQ(driver_->living, 0);
  EXPECT_FALSE(pool.Take(milliseconds(0), error_).connection);
  EXPECT_FALSE(pool.Fill(error_));
}

TEST_F(ConnectionPoolTest, WhoHoldsThePoolIsAloneUntilItIsReleased) {
  CConnectionPool pool(Limits(1, 4), driver_);
  auto out = pool.Take(milliseconds(0), error_);
  EXPECT_FALSE(pool.Hold(milliseconds(20))) << "a connection is in use";
  pool.Return(pool.Take(milliseconds(0), error_));  // nothing is held after that
  pool.Return(std::move(out));
  ASSERT_TRUE(pool.Hold(std::chrono::seconds(10)));
  std::atomic<bool> has_taken{false};
  std::thread other([&] {
    std::string error;
    auto lease = pool.Take(std::chrono::seconds(30), error);
    has_taken = lease.connection != nullptr;
    pool.Return(std::move(lease));
  });
  while (pool.CountWaiting() == 0) {
    std::this_thread::yield();
  }
  auto own = pool.Take(milliseconds(0), error_);  // although somebody waits
  EXPECT_TRUE(own.connection);
  pool.Return(std::move(own));
  EXPECT_FALSE(has_taken);
  pool.Release();
  other.join();
  EXPECT_TRUE(has_taken);
}

TEST_F(ConnectionPoolTest, AHeldPoolCanGetOtherParameters) {
  CConnectionPool pool(Limits(1, 4), driver_);
  ASSERT_TRUE(pool.Fill(error_));
  ASSERT_TRUE(pool.Hold(milliseconds(0)));
  DBParam other = Limits(1, 4);
  other.database = "other";
  pool.Reset(other, driver_);
  EXPECT_EQ(pool.GetParam().database, "other");
  EXPECT_TRUE(pool.Fill(error_));
  pool.Release();
  EXPECT_EQ(driver_->last_database, "other");
  EXPECT_TRUE(pool.Take(milliseconds(0), error_).connection);
}

TEST_F(ConnectionPoolTest, CrowdNeverExceedsTheLimit) {
  CConnectionPool pool(Limits(4, 6), driver_);
  std::atomic<int> out{0};
  std::atomic<int> most{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 24; ++thread) {
    threads.emplace_back([&, thread] {
      for (int round = 0; round < 100; ++round) {
        std::string error;
        auto lease = pool.Take(std::chrono::seconds(30), error);
        ASSERT_TRUE(lease.connection) << error;
        int seen = ++out;
        for (int known = most; seen > known && !most.compare_exchange_weak(known, seen);) {
        }
        if (thread == 0 && round % 25 == 0) {
          driver_->BreakAll();
        }
        --out;
        pool.Return(std::move(lease));
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_LE(most, 6);
  EXPECT_LE(driver_->most_living, 6);
  pool.Close(milliseconds(0));
  EXPECT_EQ(driver_->living, 0);
}

}  // namespace
}  // namespace db_layer
