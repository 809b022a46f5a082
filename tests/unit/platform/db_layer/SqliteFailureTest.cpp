// What the database does when its file, its disk or its neighbours misbehave.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "FaultVfs.h"
#include "SqliteFixture.h"
#include "TansyBase/MessageLoop.h"
#include "fakes/HeldLoop.h"
#include "fakes/ManualClock.h"

namespace db_layer {
namespace {

class SqliteFailureTest : public CSqliteFixture {
 protected:
  SqliteFailureTest() { SetSqliteFullDurability(true); }
  void TearDown() override { connection_.reset(); }

  int LastCode() {
    std::string text;
    return connection_->GetLastError(text);
  }

  CFaultVfs faults_;
};

// This stands for another process that has the file open.
class CNeighbour {
 public:
  explicit CNeighbour(const std::string& path) { EXPECT_EQ(sqlite3_open(path.c_str(), &db_), SQLITE_OK); }
  ~CNeighbour() { sqlite3_close(db_); }
  CNeighbour(const CNeighbour&) = delete;
  CNeighbour& operator=(const CNeighbour&) = delete;
  void Run(const char* sql) { EXPECT_EQ(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sql; }

 private:
  sqlite3* db_ = nullptr;
};

TEST_F(SqliteFailureTest, FullDiskFailsTheStatementAndPasses) {
  MakeSchema();
  ASSERT_TRUE(Insert(1));
  faults_.write_failure = SQLITE_FULL;
  EXPECT_FALSE(Insert(2));
  EXPECT_EQ(LastCode(), SQLITE_FULL);
  EXPECT_EQ(ErrorOf(*connection_), "database or disk is full");
  EXPECT_EQ(Count(*connection_, "platform.item"), 1);
  EXPECT_TRUE(connection_->IsHealthy());
  faults_.write_failure = 0;
  EXPECT_TRUE(Insert(2)) << ErrorOf(*connection_);
  EXPECT_EQ(Count(*connection_, "platform.item"), 2);
}

TEST_F(SqliteFailureTest, FullDiskFailsNextvalAndNoValueIsLostTwice) {
  MakeSchema();
  faults_.write_failure = SQLITE_FULL;
  EXPECT_FALSE(connection_->Query("SELECT nextval('platform.item_id_seq')"));
  EXPECT_EQ(ErrorOf(*connection_), "database or disk is full");
  faults_.write_failure = 0;
  ASSERT_TRUE(connection_->Query("SELECT nextval('platform.item_id_seq')"));
  EXPECT_EQ(connection_->GetInt(0), 1);
}

TEST_F(SqliteFailureTest, LockedFileFailsAfterTheTimeoutAndPasses) {
  SetSqliteBusyTimeout(50);
  MakeSchema();
  CNeighbour neighbour(path_);
  neighbour.Run("BEGIN IMMEDIATE");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(Insert(1));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
  EXPECT_EQ(LastCode(), SQLITE_BUSY);
  EXPECT_EQ(ErrorOf(*connection_), "database is locked");
  // Reading works all the time.
  EXPECT_EQ(Count(*connection_, "platform.item"), 0);
  neighbour.Run("COMMIT");
  EXPECT_TRUE(Insert(1)) << ErrorOf(*connection_);
}

TEST_F(SqliteFailureTest, LockedFileIsWaitedFor) {
  MakeSchema();
  CNeighbour neighbour(path_);
  neighbour.Run("BEGIN IMMEDIATE");
  std::thread writer([this] { EXPECT_TRUE(Insert(1)) << ErrorOf(*connection_); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  neighbour.Run("COMMIT");
  writer.join();
  EXPECT_EQ(Count(*connection_, "platform.item"), 1);
}

TEST_F(SqliteFailureTest, ReadingNeighbourHoldsNoWriterUp) {
  SetSqliteBusyTimeout(0);
  MakeSchema();
  CNeighbour neighbour(path_);
  neighbour.Run("BEGIN; SELECT * FROM item");
  for (int id = 1; id <= 5; ++id) {
    EXPECT_TRUE(Insert(id)) << ErrorOf(*connection_);
  }
  neighbour.Run("COMMIT");
}

TEST_F(SqliteFailureTest, FailedSyncFailsTheStatementAndPasses) {
  MakeSchema();
  ASSERT_TRUE(Insert(1));
  faults_.sync_failure = SQLITE_IOERR_FSYNC;
  EXPECT_FALSE(Insert(2));
  EXPECT_EQ(LastCode(), SQLITE_IOERR_FSYNC);
  EXPECT_EQ(ErrorOf(*connection_), "disk I/O error");
  EXPECT_EQ(Count(*connection_, "platform.item"), 1);
  EXPECT_FALSE(Insert(3));
  EXPECT_EQ(Count(*OpenSqlite(path_), "platform.item"), 1);
  faults_.sync_failure = 0;
  EXPECT_EQ(Count(*connection_, "platform.item"), 1);
  EXPECT_TRUE(Insert(4)) << ErrorOf(*connection_);
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.item", "id"), "1,4");
}

TEST_F(SqliteFailureTest, FailedCommitIsNotThereAfterReopening) {
  MakeSchema();
  ASSERT_TRUE(Insert(1));
  faults_.sync_failure = SQLITE_IOERR_FSYNC;
  EXPECT_FALSE(Insert(2));
  faults_.sync_failure = 0;
  connection_.reset();
  connection_ = OpenSqlite(path_);
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.item", "id"), "1");
}

TEST_F(SqliteFailureTest, FailedCommitFailsTheWholeGroup) {
  MakeSchema();
  constexpr int kThreads = 6;
  std::atomic<int> started{0};
  std::atomic<int> succeeded{0};
  faults_.HoldNextSync();
  std::vector<std::thread> threads;
  threads.emplace_back([&] { succeeded += Insert(*OpenSqlite(path_), 0) ? 1 : 0; });
  faults_.WaitForHeldSync();
  for (int id = 1; id <= kThreads; ++id) {
    threads.emplace_back([&, id] {
      const auto connection = OpenSqlite(path_);
      ++started;
      if (Insert(*connection, id)) {
        ++succeeded;
      } else {
        EXPECT_EQ(ErrorOf(*connection), "disk I/O error");
      }
    });
  }
  while (started < kThreads) {
    std::this_thread::yield();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  faults_.sync_failure = SQLITE_IOERR_FSYNC;
  faults_.ReleaseSync();
  for (auto& thread : threads) {
    thread.join();
  }
  faults_.sync_failure = 0;
  EXPECT_EQ(succeeded, 0);
  EXPECT_EQ(Count(*connection_, "platform.item"), 0);
  EXPECT_TRUE(Insert(1)) << ErrorOf(*connection_);
}

TEST_F(SqliteFailureTest, WritersThatMeetShareOneSync) {
  MakeSchema();
  constexpr int kThreads = 8;
  std::atomic<int> started{0};
  faults_.HoldNextSync();
  std::vector<std::thread> threads;
  threads.emplace_back([&] { EXPECT_TRUE(Insert(*OpenSqlite(path_), 0)); });
  faults_.WaitForHeldSync();
  const int before = faults_.log_syncs;
  for (int id = 1; id <= kThreads; ++id) {
    threads.emplace_back([&, id] {
      const auto connection = OpenSqlite(path_);
      ++started;
      EXPECT_TRUE(Insert(*connection, id)) << ErrorOf(*connection);
    });
  }
  while (started < kThreads) {
    std::this_thread::yield();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  faults_.ReleaseSync();
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(Count(*connection_, "platform.item"), kThreads + 1);
  // All eight are committed together, or in two commits when one writer was held up on its way.
  EXPECT_LE(faults_.log_syncs - before, 2);
  EXPECT_GE(faults_.log_syncs - before, 1);
}

// A loop of one thread comes to forty writers while the disk takes its time, and the next sync serves them all.
TEST_F(SqliteFailureTest, TasksThatWaitForTheDiskLetOthersBegin) {
  MakeSchema();
  constexpr int kTasks = 40;
  std::atomic<int> started{0};
  std::atomic<int> succeeded{0};
  TansyBase::CMessageLoopDyThreadPool loop;
  ASSERT_TRUE(loop.Start(1, 1, 5));
  faults_.HoldNextSync();
  const int before = faults_.log_syncs;
  for (int id = 0; id < kTasks; ++id) {
    Tansy::Tests::Post(loop, [&, id] {
      const auto connection = OpenSqlite(path_);
      ++started;
      succeeded += Insert(*connection, id) ? 1 : 0;
    });
  }
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (started < kTasks && std::chrono::steady_clock::now() < limit) {
    std::this_thread::yield();
  }
  EXPECT_EQ(started, kTasks) << "tasks waited for a thread that only waited";
  faults_.ReleaseSync();
  loop.Stop(true);
  EXPECT_EQ(succeeded, kTasks);
  EXPECT_LT(faults_.log_syncs - before, kTasks / 4);
}

TEST_F(SqliteFailureTest, EveryStatementOfOneCallerIsSyncedWithFullDurability) {
  MakeSchema();
  const int before = faults_.log_syncs;
  for (int id = 1; id <= 10; ++id) {
    ASSERT_TRUE(Insert(id));
  }
  EXPECT_GE(faults_.log_syncs - before, 10);
}

TEST_F(SqliteFailureTest, NormalDurabilityLeavesItToTheSystem) {
  SetSqliteFullDurability(false);
  MakeSchema();
  const int before = faults_.log_syncs;
  for (int id = 1; id <= 10; ++id) {
    ASSERT_TRUE(Insert(id));
  }
  EXPECT_EQ(faults_.log_syncs - before, 0);
}

TEST_F(SqliteFailureTest, RefusedStatementInAGroupFailsAlone) {
  MakeSchema();
  ASSERT_TRUE(Insert(3));
  std::atomic<int> started{0};
  std::atomic<int> failed{0};
  faults_.HoldNextSync();
  std::vector<std::thread> threads;
  threads.emplace_back([&] { EXPECT_TRUE(Insert(*OpenSqlite(path_), 0)); });
  faults_.WaitForHeldSync();
  for (int id = 1; id <= 6; ++id) {
    threads.emplace_back([&, id] {
      const auto connection = OpenSqlite(path_);
      ++started;
      const bool rolls_back = id == 5;  // ends the shared transaction, which then runs again without it
      const std::string sql = std::string(rolls_back ? "INSERT OR ROLLBACK" : "INSERT") +
                              " INTO platform.item (id) VALUES (" + std::to_string(rolls_back ? 3 : id) + ")";
      if (!connection->Execute(sql)) {
        ++failed;
        EXPECT_TRUE(id == 3 || rolls_back) << id;
        EXPECT_EQ(ErrorOf(*connection), "UNIQUE constraint failed: item.id");
      }
    });
  }
  while (started < 6) {
    std::this_thread::yield();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  faults_.ReleaseSync();
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failed, 2);
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.item ORDER BY id", "id"), "0,1,2,3,4,6");
}

TEST_F(SqliteFailureTest, FailingReadsAreErrorsAndPass) {
  MakeSchema();
  ASSERT_TRUE(connection_->Execute(
      "INSERT INTO platform.item (id, name) WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < "
      "5000) SELECT i, hex(randomblob(500)) FROM n"));
  connection_.reset();
  connection_ = OpenSqlite(path_);
  EXPECT_EQ(Count(*connection_, "platform.sequences"), 1);  // it is open for reading from here on
  faults_.read_failure = SQLITE_IOERR_READ;
  EXPECT_FALSE(connection_->Query("SELECT * FROM platform.item"));
  EXPECT_EQ(ErrorOf(*connection_), "disk I/O error");
  EXPECT_TRUE(connection_->IsEnd());
  EXPECT_EQ(connection_->GetString("id"), "");
  faults_.read_failure = 0;
  EXPECT_EQ(Count(*connection_, "platform.item"), 5000);
}

TEST_F(SqliteFailureTest, ReadOnlyFileDoesNotOpen) {
  MakeSchema();
  connection_.reset();
  faults_.is_read_only = true;
  std::string error;
  EXPECT_FALSE(OpenSqlite(path_, error));
  EXPECT_NE(error.find("the database file cannot be written to"), std::string::npos) << error;
  faults_.is_read_only = false;
  connection_ = OpenSqlite(path_);
  EXPECT_TRUE(Insert(1));
}

TEST_F(SqliteFailureTest, DamagedHeaderDoesNotOpen) {
  std::ofstream(path_) << std::string(8192, 'x');
  std::string error;
  EXPECT_FALSE(OpenSqlite(path_, error));
  EXPECT_NE(error.find("file is not a database"), std::string::npos) << error;
  std::filesystem::remove(path_);
  MakeSchema();
  EXPECT_TRUE(Insert(1));
}

TEST_F(SqliteFailureTest, DamagedPagesAreErrors) {
  MakeSchema();
  ASSERT_TRUE(connection_->Execute(
      "INSERT INTO platform.item (id, name) WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < "
      "5000) SELECT i, hex(randomblob(50)) FROM n"));
  connection_.reset();
  const auto size = std::filesystem::file_size(path_);
  {
    std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096 * 4);
    file << std::string(size - 4096 * 4, '\xFF');
  }
  connection_ = OpenSqlite(path_);
  EXPECT_FALSE(connection_->Query("SELECT * FROM platform.item"));
  EXPECT_EQ(LastCode() & 0xFF, SQLITE_CORRUPT);
  EXPECT_EQ(ErrorOf(*connection_), "database disk image is malformed");
  EXPECT_TRUE(connection_->IsEnd());
  EXPECT_FALSE(Insert(1));
  EXPECT_NE(LastCode(), 0);
}

TEST_F(SqliteFailureTest, ReplacedFileIsNoticedAndUsed) {
  Tansy::Tests::CManualClock clock;
  MakeSchema();
  ASSERT_TRUE(Insert(1));
  ASSERT_TRUE(connection_->Query("SELECT nextval('platform.item_id_seq')"));
  connection_.reset();
  std::filesystem::copy(path_, folder_.Path("backup.db"));

  connection_ = OpenSqlite(path_);
  ASSERT_TRUE(Insert(2));
  ASSERT_TRUE(connection_->Query("SELECT nextval('platform.item_id_seq')"));
  EXPECT_EQ(connection_->GetInt(0), 1025);
  // Somebody puts the backup back without stopping the service.
  std::filesystem::remove(path_ + "-wal");
  std::filesystem::remove(path_ + "-shm");
  std::filesystem::rename(folder_.Path("backup.db"), path_);
  clock.Advance(1);

  EXPECT_TRUE(Insert(3)) << ErrorOf(*connection_);
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.item ORDER BY id", "id"), "1,3");
  ASSERT_TRUE(connection_->Query("SELECT nextval('platform.item_id_seq')"));
  EXPECT_EQ(connection_->GetInt(0), 1025);
  EXPECT_EQ(Count(*OpenSqlite(path_), "platform.item"), 2);
}

TEST_F(SqliteFailureTest, RemovedFileIsAnErrorAndNotASilentLoss) {
  Tansy::Tests::CManualClock clock;
  MakeSchema();
  ASSERT_TRUE(Insert(1));
  for (const char* end : {"", "-wal", "-shm"}) {
    std::filesystem::remove(path_ + end);
  }
  clock.Advance(1);
  EXPECT_FALSE(Insert(2));
  EXPECT_EQ(ErrorOf(*connection_), "no such table: platform.item");
}

TEST_F(SqliteFailureTest, PoolRecoversByItself) {
  DBParam param;
  param.database = path_;
  MakeSchema();
  connection_.reset();
  ASSERT_TRUE(Module_Register(param, "failure"));
  faults_.read_failure = SQLITE_IOERR_READ;
  faults_.sync_failure = SQLITE_IOERR_FSYNC;
  for (int i = 0; i < 20; ++i) {
    CConnect* connection = DBLayer_ApplyConn("failure");
    ASSERT_NE(connection, nullptr) << LastRegisterError("failure");
    EXPECT_FALSE(Insert(*connection, i));
    connection->Query("SELECT * FROM platform.item");
    DBLayer_FreeConn(connection);
  }
  faults_.read_failure = 0;
  faults_.sync_failure = 0;
  CConnect* connection = DBLayer_ApplyConn("failure");
  ASSERT_NE(connection, nullptr) << LastRegisterError("failure");
  EXPECT_TRUE(Insert(*connection, 1)) << ErrorOf(*connection);
  EXPECT_EQ(Count(*connection, "platform.item"), 1);
  DBLayer_FreeConn(connection);
  Module_Unregister("failure");
}

}  // namespace
}  // namespace db_layer
