// Power failures at arbitrary moments: what was acknowledged is there afterwards, what was not is there wholly or not
// at all, and the database opens.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "FaultVfs.h"
#include "SqliteFixture.h"

namespace db_layer {
namespace {

class SqlitePowerFailureTest : public CSqliteFixture, public testing::WithParamInterface<int> {
 protected:
  SqlitePowerFailureTest() { SetSqliteFullDurability(true); }
  void TearDown() override { connection_.reset(); }

  // Each statement writes two rows, so that half a statement would show.
  static bool InsertPair(CConnect& connection, int id, int bytes = 700) {
    const std::string first = std::to_string(2 * id);
    const std::string second = std::to_string(2 * id + 1);
    const std::string name = ", hex(randomblob(" + std::to_string(bytes) + "))";
    return connection.Execute("INSERT INTO platform.item (id, name) VALUES (" + first + name + "), (" + second + name +
                              ")");
  }

  void InsertPairs(int first, int last, std::set<int>& acknowledged, int bytes = 700) {
    for (int id = first; id < last; ++id) {
      ASSERT_TRUE(InsertPair(*connection_, id, bytes)) << ErrorOf(*connection_);
      acknowledged.insert(id);
    }
  }

  // Begins to read on a connection past the driver, so that the log can be copied up to here only.
  sqlite3* BeginReading() {
    sqlite3* reader = nullptr;
    EXPECT_EQ(sqlite3_open(path_.c_str(), &reader), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(reader, "BEGIN; SELECT count(*) FROM item", nullptr, nullptr, nullptr), SQLITE_OK);
    return reader;
  }

  // The number by which SQLite tells one run of the log from the one that is written over it.
  std::string LogSalt() const {
    constexpr std::streamoff kBegin = 16;
    std::string salt(8, '\0');
    std::ifstream log(path_ + "-wal", std::ios::binary);
    log.seekg(kBegin);
    log.read(salt.data(), static_cast<std::streamsize>(salt.size()));
    return salt;
  }

  void CutPowerAndOpen(std::mt19937& random) {
    faults_.CutPower(random);
    connection_.reset();
    faults_.RestorePower();
    connection_ = OpenSqlite(path_);
    ASSERT_TRUE(connection_);
  }

  std::set<int> StoredIds() {
    std::set<int> ids;
    EXPECT_TRUE(connection_->Query("SELECT id FROM platform.item")) << ErrorOf(*connection_);
    for (; !connection_->IsEnd(); connection_->MoveNext()) {
      ids.insert(connection_->GetInt("id"));
    }
    return ids;
  }

  void ExpectIntact(const std::set<int>& acknowledged) {
    EXPECT_EQ(Column(*connection_, "PRAGMA platform.integrity_check", "integrity_check"), "ok");
    const std::set<int> stored = StoredIds();
    for (const int id : acknowledged) {
      EXPECT_TRUE(stored.contains(2 * id) && stored.contains(2 * id + 1)) << "acknowledged but lost: " << id;
    }
    for (const int id : stored) {
      EXPECT_TRUE(stored.contains(id ^ 1)) << "half a statement: " << id;
    }
  }

  CFaultVfs faults_;
};

TEST_P(SqlitePowerFailureTest, AcknowledgedStatementsSurvive) {
  const auto seed = static_cast<std::uint32_t>(GetParam());
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  MakeSchema();
  std::set<int> acknowledged;
  int next = 0;
  for (int failure = 0; failure < 3; ++failure) {
    // Some runs are long enough for the log to be copied back into the database several times.
    const int last = next + static_cast<int>(random() % (failure == 1 ? 900 : 60));
    for (; next < last; ++next) {
      ASSERT_TRUE(InsertPair(*connection_, next)) << ErrorOf(*connection_);
      acknowledged.insert(next);
    }
    faults_.CutPower(random);
    EXPECT_FALSE(InsertPair(*connection_, next++));
    connection_.reset();
    faults_.RestorePower();
    connection_ = OpenSqlite(path_);
    ASSERT_TRUE(connection_);
    ExpectIntact(acknowledged);
  }
}

TEST_P(SqlitePowerFailureTest, AcknowledgedStatementsOfManyThreadsSurvive) {
  constexpr int kThreads = 4;
  const auto seed = static_cast<std::uint32_t>(GetParam());
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  MakeSchema();
  std::vector<std::set<int>> acknowledged(kThreads);
  std::vector<std::set<int>> taken(kThreads);
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      const auto own = static_cast<std::size_t>(thread);
      const auto connection = OpenSqlite(path_);
      while (connection->Query("SELECT nextval('platform.item_id_seq')")) {
        const int id = connection->GetInt(0);
        taken[own].insert(id);
        if (!InsertPair(*connection, id)) {
          break;
        }
        acknowledged[own].insert(id);
        ++done;
      }
    });
  }
  const int target = 20 + static_cast<int>(random() % 200);
  while (done < target) {
    std::this_thread::yield();
  }
  faults_.CutPower(random);
  for (auto& thread : threads) {
    thread.join();
  }
  connection_.reset();
  faults_.RestorePower();
  connection_ = OpenSqlite(path_);
  ASSERT_TRUE(connection_);
  std::set<int> all;
  int highest = 0;
  for (std::size_t i = 0; i < acknowledged.size(); ++i) {
    all.insert(acknowledged[i].begin(), acknowledged[i].end());
    highest = std::max(highest, taken[i].empty() ? 0 : *taken[i].rbegin());
  }
  ExpectIntact(all);
  ASSERT_TRUE(connection_->Query("SELECT nextval('platform.item_id_seq')"));
  EXPECT_GT(connection_->GetInt(0), highest);
}

// Somebody reads, so that only the beginning of the log can be copied, which SQLite does without a flush. The flush
// that comes with the rest fails, and the system forgets what both have written.
TEST_P(SqlitePowerFailureTest, WhatAFailedFlushOfTheDatabaseForgetsIsCopiedAgain) {
  std::mt19937 random(static_cast<std::uint32_t>(GetParam()));
  MakeSchema();
  ASSERT_TRUE(connection_->Execute("PRAGMA platform.wal_checkpoint(TRUNCATE)"));
  std::set<int> acknowledged;
  InsertPairs(0, 30, acknowledged);
  sqlite3* reader = BeginReading();
  InsertPairs(30, 60, acknowledged);
  ASSERT_TRUE(connection_->Execute("PRAGMA platform.wal_checkpoint(PASSIVE)"));
  sqlite3_close(reader);
  faults_.database_sync_failure = SQLITE_IOERR_FSYNC;
  EXPECT_FALSE(connection_->Execute("PRAGMA platform.wal_checkpoint(TRUNCATE)"));
  faults_.database_sync_failure = 0;
  InsertPairs(60, 61, acknowledged);
  CutPowerAndOpen(random);
  ExpectIntact(acknowledged);
}

// The same for the thread that copies a long log while others write.
TEST_P(SqlitePowerFailureTest, WhatAFailedFlushForgetsIsCopiedAgainWhileOthersWrite) {
  std::mt19937 random(static_cast<std::uint32_t>(GetParam()));
  MakeSchema();
  ASSERT_TRUE(connection_->Execute("PRAGMA platform.wal_checkpoint(TRUNCATE)"));
  std::set<int> acknowledged;
  InsertPairs(0, 30, acknowledged);
  sqlite3* reader = BeginReading();
  InsertPairs(30, 60, acknowledged);
  ASSERT_TRUE(connection_->Execute("PRAGMA platform.wal_checkpoint(PASSIVE)"));
  sqlite3_close(reader);
  constexpr int kBig = 40000;  // bytes, so that the log is soon long
  int next = 60;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  const auto has_time = [deadline] { return std::chrono::steady_clock::now() < deadline; };
  faults_.database_sync_failure = SQLITE_IOERR_FSYNC;
  for (; faults_.failed_syncs == 0 && has_time(); ++next) {
    InsertPairs(next, next + 1, acknowledged, kBig);
  }
  faults_.database_sync_failure = 0;
  // The log is begun anew by the first write behind a copy of all of it.
  const std::string salt = LogSalt();
  for (; LogSalt() == salt && has_time(); ++next) {
    const int before = faults_.database_syncs;
    InsertPairs(next, next + 1, acknowledged);
    while (LogSalt() == salt && faults_.database_syncs == before && has_time()) {
      std::this_thread::yield();
    }
  }
  ASSERT_TRUE(has_time()) << faults_.failed_syncs << " flushes failed, " << faults_.database_syncs << " did not";
  CutPowerAndOpen(random);
  ExpectIntact(acknowledged);
}

TEST_P(SqlitePowerFailureTest, NormalDurabilityLosesTheEndButNothingInBetween) {
  const auto seed = static_cast<std::uint32_t>(GetParam());
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  SetSqliteFullDurability(false);
  MakeSchema();
  ASSERT_TRUE(connection_->Execute("PRAGMA platform.wal_checkpoint(TRUNCATE)"));
  const int last = static_cast<int>(random() % 500);
  for (int id = 0; id < last; ++id) {
    ASSERT_TRUE(InsertPair(*connection_, id));
  }
  faults_.CutPower(random);
  connection_.reset();
  faults_.RestorePower();
  connection_ = OpenSqlite(path_);
  ASSERT_TRUE(connection_);
  ExpectIntact({});
  const std::set<int> stored = StoredIds();
  EXPECT_TRUE(stored.empty() || *stored.rbegin() == static_cast<int>(stored.size()) - 1);
}

INSTANTIATE_TEST_SUITE_P(Seeds, SqlitePowerFailureTest, testing::Range(1, 9));

}  // namespace
}  // namespace db_layer
