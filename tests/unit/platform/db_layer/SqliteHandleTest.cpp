#include "db_layer/SqliteHandle.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <new>
#include <string>

#include "fakes/TempFolder.h"

namespace db_layer {
namespace {

class CSource final : public ISequenceSource {
 public:
  bool NextValue(const std::string&, std::int64_t& value, SqlError&) override {
    if (out_of_memory) {
      throw std::bad_alloc();
    }
    value = ++last_;
    return true;
  }

  bool out_of_memory = false;

 private:
  std::int64_t last_ = 0;
};

class SqliteHandleTest : public testing::Test {
 protected:
  SqliteHandleTest() {
    EXPECT_TRUE(handle_.Open(folder_.Path("handle.db"), {false, 5000}, source_, error_)) << error_.text;
    EXPECT_TRUE(handle_.RunOwn("CREATE TABLE platform.t (a INTEGER, b TEXT)", error_)) << error_.text;
  }

  std::string Query(const std::string& sql) {
    CRowBuffer rows;
    bool writes = false;
    return handle_.RunIfReading(sql, rows, writes, error_) ? rows.GetString("n") : "failed";
  }

  Tansy::Tests::CTempFolder folder_;
  CSource source_;
  SqlError error_;
  CSqliteHandle handle_;
};

// An exception that passed through SQLite would leave the connection without memory for ever.
TEST_F(SqliteHandleTest, ASequenceThatRunsOutOfMemoryFailsItsStatementOnly) {
  for (int round = 0; round < 3; ++round) {
    source_.out_of_memory = true;
    EXPECT_EQ(Query("SELECT nextval('s') AS n"), "failed");
    EXPECT_EQ(error_.code, SQLITE_NOMEM);
    EXPECT_FALSE(handle_.Run("INSERT INTO platform.t (a, b) VALUES (nextval('s'), 'x')", nullptr, error_));
    EXPECT_EQ(error_.code, SQLITE_NOMEM);
    source_.out_of_memory = false;
    EXPECT_TRUE(handle_.Run("INSERT INTO platform.t (a, b) VALUES (nextval('s'), 'x')", nullptr, error_));
  }
  EXPECT_EQ(Query("SELECT count(*) AS n FROM platform.t"), "3");
}

TEST_F(SqliteHandleTest, KeptStatementsHoldNoTransaction) {
  ASSERT_TRUE(handle_.Run("INSERT INTO platform.t (a, b) VALUES (1, 'x')", nullptr, error_));
  ASSERT_EQ(Query("SELECT count(*) AS n FROM platform.t"), "1");
  EXPECT_FALSE(handle_.IsInTransaction());
  CRowBuffer result;
  ASSERT_TRUE(handle_.RunOwn("PRAGMA platform.wal_checkpoint(TRUNCATE)", &result, error_));
  EXPECT_EQ(result.GetString("busy"), "0");
  handle_.Close();
  EXPECT_FALSE(handle_.IsOpen());
  ASSERT_TRUE(handle_.Open(folder_.Path("handle.db"), {false, 5000}, source_, error_));
  EXPECT_EQ(Query("SELECT count(*) AS n FROM platform.t"), "1");
}

}  // namespace
}  // namespace db_layer
