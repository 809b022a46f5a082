#include "db_layer/SqliteStatements.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <utility>

namespace db_layer {
namespace {

class SqliteStatementsTest : public testing::Test {
 protected:
  SqliteStatementsTest() {
    EXPECT_EQ(sqlite3_open(":memory:", &database_), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database_, "CREATE TABLE t (a)", nullptr, nullptr, nullptr), SQLITE_OK);
  }
  ~SqliteStatementsTest() override {
    statements_.Clear();
    EXPECT_EQ(sqlite3_close(database_), SQLITE_OK) << "a statement is left";
  }

  // Has `sql` prepared, used and given back.
  sqlite3_stmt* Keep(const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(database_, sql.c_str(), -1, &statement, nullptr), SQLITE_OK);
    CSqliteStatements::CLoan loan = statements_.Borrow(sql);
    EXPECT_FALSE(loan);
    loan.Fill(sql, StatementPtr(statement));
    return loan.Get();
  }
  bool IsKept(const std::string& sql) { return static_cast<bool>(statements_.Borrow(sql)); }

  sqlite3* database_ = nullptr;
  CSqliteStatements statements_;
};

TEST_F(SqliteStatementsTest, WhatIsGivenBackIsLentAgain) {
  sqlite3_stmt* statement = Keep("SELECT 1");
  EXPECT_FALSE(IsKept("SELECT 2"));
  CSqliteStatements::CLoan loan = statements_.Borrow("SELECT 1");
  ASSERT_TRUE(loan);
  EXPECT_EQ(loan.Get(), statement);
}

TEST_F(SqliteStatementsTest, WhatIsOnLoanIsNotLentTwice) {
  Keep("SELECT 1");
  CSqliteStatements::CLoan loan = statements_.Borrow("SELECT 1");
  ASSERT_TRUE(loan);
  EXPECT_FALSE(IsKept("SELECT 1"));
  const CSqliteStatements::CLoan moved = std::move(loan);
  EXPECT_TRUE(moved);
}

TEST_F(SqliteStatementsTest, WhatIsDroppedIsGone) {
  Keep("SELECT 1");
  statements_.Borrow("SELECT 1").Drop();
  EXPECT_FALSE(IsKept("SELECT 1"));
}

TEST_F(SqliteStatementsTest, WhatComesBackHoldsNeitherTransactionNorValues) {
  Keep("INSERT INTO t VALUES (?)");
  ASSERT_EQ(sqlite3_exec(database_, "INSERT INTO t VALUES (1), (2)", nullptr, nullptr, nullptr), SQLITE_OK);
  Keep("SELECT a FROM t");
  {
    const CSqliteStatements::CLoan reading = statements_.Borrow("SELECT a FROM t");
    ASSERT_EQ(sqlite3_step(reading.Get()), SQLITE_ROW);
    EXPECT_NE(sqlite3_txn_state(database_, nullptr), SQLITE_TXN_NONE);
    const CSqliteStatements::CLoan writing = statements_.Borrow("INSERT INTO t VALUES (?)");
    ASSERT_EQ(sqlite3_bind_int(writing.Get(), 1, 3), SQLITE_OK);
  }
  EXPECT_EQ(sqlite3_txn_state(database_, nullptr), SQLITE_TXN_NONE);
  const CSqliteStatements::CLoan again = statements_.Borrow("INSERT INTO t VALUES (?)");
  ASSERT_EQ(sqlite3_step(again.Get()), SQLITE_DONE);
  const CSqliteStatements::CLoan reading = statements_.Borrow("SELECT a FROM t");
  for (int row = 0; row < 3; ++row) {
    ASSERT_EQ(sqlite3_step(reading.Get()), SQLITE_ROW);
  }
  EXPECT_EQ(sqlite3_column_type(reading.Get(), 0), SQLITE_NULL) << "the value of the loan before";
}

TEST_F(SqliteStatementsTest, TheLeastRecentlyUsedGoes) {
  for (int i = 0; i < 16; ++i) {
    Keep("SELECT " + std::to_string(i));
  }
  EXPECT_TRUE(IsKept("SELECT 0"));
  Keep("SELECT 16");
  EXPECT_TRUE(IsKept("SELECT 0")) << "used a moment ago";
  EXPECT_FALSE(IsKept("SELECT 1"));
  EXPECT_TRUE(IsKept("SELECT 2"));
}

}  // namespace
}  // namespace db_layer
