#include "db_layer/SqliteConnect.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "SqliteFixture.h"

namespace db_layer {
namespace {

class SqliteConnectTest : public CSqliteFixture {
 protected:
  void SetUp() override { MakeSchema(); }
};

TEST_F(SqliteConnectTest, RowsAreReadByColumn) {
  ASSERT_TRUE(connection_->Execute("INSERT INTO platform.item (id, name) VALUES (2, 'two'), (1, NULL), (3, '') "));
  ASSERT_TRUE(connection_->Query("SELECT * FROM platform.item WHERE id > 0 ORDER BY id;"));
  EXPECT_EQ(connection_->GetInt("id"), 1);
  EXPECT_EQ(connection_->GetInt(0), 1);
  EXPECT_EQ(connection_->GetString("id"), "1");
  EXPECT_EQ(connection_->GetString("name"), "");
  EXPECT_EQ(connection_->GetInt("name"), 0);
  connection_->MoveNext();
  EXPECT_EQ(connection_->GetString("name"), "two");
  EXPECT_EQ(connection_->GetInt(-1), 0);
  EXPECT_EQ(connection_->GetInt(99), 0);
  connection_->MoveNext();
  EXPECT_FALSE(connection_->IsEnd());
  connection_->MoveNext();
  EXPECT_TRUE(connection_->IsEnd());
}

TEST_F(SqliteConnectTest, EmptyResultIsASuccessAtItsEnd) {
  EXPECT_TRUE(connection_->Query("SELECT * FROM platform.item"));
  EXPECT_TRUE(connection_->IsEnd());
  EXPECT_EQ(connection_->GetString("id"), "");
}

TEST_F(SqliteConnectTest, IntegersAreTheLowBits) {
  ASSERT_TRUE(connection_->Execute("INSERT INTO platform.item (id, name) VALUES (4294967295, '3000000000')"));
  ASSERT_TRUE(connection_->Query("SELECT * FROM platform.item"));
  EXPECT_EQ(static_cast<std::uint32_t>(connection_->GetInt("id")), 4294967295U);
  EXPECT_EQ(static_cast<std::uint32_t>(connection_->GetInt("name")), 3000000000U);
}

TEST_F(SqliteConnectTest, TextsComeBackAsTheyWere) {
  const std::string text = "quote ' and \" back\\slash \x01 \xE4\xB8\xAD \xFF;--/*";
  std::string quoted;
  for (const char c : text) {
    quoted.append(c == '\'' ? 2 : 1, c);
  }
  ASSERT_TRUE(connection_->Execute("INSERT INTO platform.item (id, name) VALUES (1, '" + quoted + "')"));
  ASSERT_TRUE(connection_->Query("SELECT name FROM platform.item WHERE name = '" + quoted + "'"));
  EXPECT_EQ(connection_->GetString("name"), text);
}

// Statements that differ in their values only are prepared once. Callers must not see any difference.
TEST_F(SqliteConnectTest, EachStatementHasItsOwnValues) {
  for (const char* values : {"(1, 'one')", "(-2, '')", "(3, 'it''s')", "(4, NULL)", "(5, 5)", "(6, '6')"}) {
    ASSERT_TRUE(connection_->Execute(std::string("INSERT INTO platform.item (id, name) VALUES ") + values));
  }
  ASSERT_TRUE(connection_->Execute("UPDATE platform.item SET name='zwei' WHERE id=-2"));
  ASSERT_TRUE(connection_->Execute("UPDATE platform.item SET name='drei' WHERE id=3"));
  ASSERT_TRUE(connection_->Execute("DELETE FROM platform.item WHERE id=1"));
  ASSERT_TRUE(connection_->Execute("DELETE FROM platform.item WHERE id=99"));
  const std::string all = "SELECT id, name, typeof(name) AS type FROM platform.item ORDER BY id";
  EXPECT_EQ(Column(*connection_, all, "id"), "-2,3,4,5,6");
  EXPECT_EQ(Column(*connection_, all, "name"), "zwei,drei,,5,6");
  EXPECT_EQ(Column(*connection_, all, "type"), "text,text,null,text,text");
}

TEST_F(SqliteConnectTest, KeptStatementsFollowTheSchema) {
  ASSERT_TRUE(Insert(1));
  EXPECT_EQ(Column(*connection_, "SELECT * FROM platform.item", "id"), "1");
  ASSERT_TRUE(connection_->Execute("ALTER TABLE platform.item ADD COLUMN extra TEXT DEFAULT 'more'"));
  ASSERT_TRUE(Insert(2));
  EXPECT_EQ(Column(*connection_, "SELECT * FROM platform.item", "extra"), "more,more");
  ASSERT_TRUE(connection_->Execute("DROP TABLE platform.item"));
  EXPECT_FALSE(Insert(3));
  EXPECT_EQ(ErrorOf(*connection_), "no such table: platform.item");
  EXPECT_FALSE(connection_->Query("SELECT * FROM platform.item"));
  ASSERT_TRUE(connection_->Execute("CREATE TABLE platform.item (id TEXT, name TEXT)"));
  ASSERT_TRUE(Insert(3));
  EXPECT_EQ(Column(*connection_, "SELECT * FROM platform.item", "id"), "3");
}

TEST_F(SqliteConnectTest, RefusalsDoNotOutliveTheirStatement) {
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(Insert(round));
    EXPECT_FALSE(connection_->Execute("ATTACH DATABASE ':memory:' AS other"));
    EXPECT_EQ(ErrorOf(*connection_), "databases are not the caller's to attach");
    EXPECT_FALSE(connection_->Execute("COMMIT"));
    EXPECT_EQ(ErrorOf(*connection_), "transactions are not the caller's to control");
    EXPECT_FALSE(Insert(round));
    EXPECT_EQ(ErrorOf(*connection_), "UNIQUE constraint failed: item.id");
  }
  ASSERT_TRUE(connection_->Execute("VACUUM platform")) << ErrorOf(*connection_);
}

TEST_F(SqliteConnectTest, AnEmptyStatementInFrontChangesNothing) {
  ASSERT_TRUE(connection_->Execute(";ALTER TABLE platform.item ADD COLUMN five AS (5)")) << ErrorOf(*connection_);
  ASSERT_TRUE(Insert(1));
  EXPECT_EQ(Column(*connection_, "SELECT five FROM platform.item", "five"), "5");
}

TEST_F(SqliteConnectTest, AFailedStatementDoesNotSpoilTheNextOfItsKind) {
  ASSERT_TRUE(Insert(1));
  for (int round = 0; round < 3; ++round) {
    EXPECT_FALSE(Insert(1));
    EXPECT_EQ(ErrorOf(*connection_), "UNIQUE constraint failed: item.id");
    EXPECT_TRUE(Insert(2 + round));
  }
  EXPECT_EQ(Count(*connection_, "platform.item"), 4);
}

TEST_F(SqliteConnectTest, ErrorsQuoteTheStatementAsItWas) {
  EXPECT_FALSE(connection_->Execute("INSERT INTO platform.item (id, name) VALUES (1, 'a') 'b'"));
  EXPECT_EQ(ErrorOf(*connection_), "near \"'b'\": syntax error");
  EXPECT_FALSE(connection_->Execute("INSERT INTO platform.item (id) VALUES (1, 'a')"));
  EXPECT_EQ(ErrorOf(*connection_), "2 values for 1 columns");
  EXPECT_FALSE(connection_->Execute("DELETE FROM platform.item WHERE id=1; DELETE FROM platform.item WHERE id=2"));
  EXPECT_EQ(ErrorOf(*connection_), "only one statement at a time");
}

TEST_F(SqliteConnectTest, ExecuteEndsTheRowsOfTheQueryBefore) {
  ASSERT_TRUE(Insert(1));
  ASSERT_TRUE(connection_->Query("SELECT * FROM platform.item"));
  ASSERT_FALSE(connection_->IsEnd());
  ASSERT_TRUE(Insert(2));
  EXPECT_TRUE(connection_->IsEnd());
}

TEST_F(SqliteConnectTest, EveryConnectionSeesWhatIsCommitted) {
  const auto other = OpenSqlite(path_);
  for (int id = 1; id <= 20; ++id) {
    ASSERT_TRUE(Insert(id % 2 == 0 ? *connection_ : *other, id));
    EXPECT_EQ(Count(*connection_, "platform.item"), id);
    EXPECT_EQ(Count(*other, "platform.item"), id);
  }
}

TEST_F(SqliteConnectTest, RowsInHandHoldNothingUp) {
  ASSERT_TRUE(Insert(1));
  ASSERT_TRUE(connection_->Query("SELECT * FROM platform.item"));
  const auto other = OpenSqlite(path_);
  EXPECT_TRUE(other->Execute("DELETE FROM platform.item"));
  EXPECT_TRUE(other->Execute("DROP TABLE platform.item"));
  EXPECT_EQ(connection_->GetString("name"), "n");
}

TEST_F(SqliteConnectTest, QueryThatWritesIsCommittedLikeExecute) {
  ASSERT_TRUE(connection_->Query("INSERT INTO platform.item (id, name) VALUES (5, 'five') RETURNING id, name"));
  EXPECT_EQ(connection_->GetInt("id"), 5);
  EXPECT_EQ(connection_->GetString("name"), "five");
  EXPECT_EQ(Count(*OpenSqlite(path_), "platform.item"), 1);
}

TEST_F(SqliteConnectTest, LastErrorStaysUntilTheNext) {
  std::string text = "x";
  EXPECT_EQ(connection_->GetLastError(text), 0);
  EXPECT_EQ(text, "");
  EXPECT_FALSE(connection_->Execute("INSERT INTO platform.absent VALUES (1)"));
  EXPECT_NE(connection_->GetLastError(text), 0);
  EXPECT_EQ(text, "no such table: platform.absent");
  EXPECT_TRUE(Insert(1));
  EXPECT_EQ(ErrorOf(*connection_), "no such table: platform.absent");
  EXPECT_FALSE(Insert(1));
  EXPECT_EQ(ErrorOf(*connection_), "UNIQUE constraint failed: item.id");
  EXPECT_TRUE(connection_->IsHealthy());
}

TEST_F(SqliteConnectTest, ErrorsAreOneLine) {
  EXPECT_FALSE(connection_->Query("SELECT \"a\nb\x01\" FROM platform.item"));
  const std::string error = ErrorOf(*connection_);
  EXPECT_NE(error.find("a b "), std::string::npos) << error;
  EXPECT_EQ(error.find('\n'), std::string::npos);
}

TEST_F(SqliteConnectTest, NulByteIsRefusedAndNothingBeforeItRuns) {
  ASSERT_TRUE(Insert(1));
  const std::string sql("DELETE FROM platform.item\0 WHERE id = 7", 39);
  EXPECT_FALSE(connection_->Execute(sql));
  EXPECT_EQ(ErrorOf(*connection_), "the statement holds a NUL byte");
  EXPECT_FALSE(connection_->Query(std::string("SELECT 1\0", 9)));
  EXPECT_EQ(Count(*connection_, "platform.item"), 1);
}

struct RefusedCase {
  const char* sql;
  const char* error;
};

class SqliteRefusedTest : public SqliteConnectTest, public testing::WithParamInterface<RefusedCase> {};

TEST_P(SqliteRefusedTest, NeitherExecutesNorQueries) {
  ASSERT_TRUE(Insert(1));
  EXPECT_FALSE(connection_->Execute(GetParam().sql));
  EXPECT_EQ(ErrorOf(*connection_), GetParam().error);
  EXPECT_FALSE(connection_->Query(GetParam().sql));
  EXPECT_EQ(ErrorOf(*connection_), GetParam().error);
  EXPECT_TRUE(connection_->IsEnd());
  EXPECT_TRUE(Insert(2)) << ErrorOf(*connection_);
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.item ORDER BY id", "id"), "1,2");
}

constexpr const char* kOneOnly = "only one statement at a time";
constexpr const char* kNoTransaction = "transactions are not the caller's to control";
constexpr const char* kNoAttach = "databases are not the caller's to attach";
constexpr const char* kPlatformOnly = "only the schema platform can be written to";

INSTANTIATE_TEST_SUITE_P(
    Statements, SqliteRefusedTest,
    testing::Values(
        RefusedCase{"", "the statement is empty"}, RefusedCase{" ; ", "the statement is empty"},
        RefusedCase{"-- nothing", "the statement is empty"},
        RefusedCase{"DELETE FROM platform.item; DELETE FROM platform.item", kOneOnly},
        RefusedCase{"SELECT 1; DELETE FROM platform.item", kOneOnly}, RefusedCase{"SELECT 1; garbage", kOneOnly},
        RefusedCase{"BEGIN", kNoTransaction}, RefusedCase{"COMMIT", kNoTransaction},
        RefusedCase{" /* x */ END", kNoTransaction}, RefusedCase{"ROLLBACK", kNoTransaction},
        RefusedCase{"SAVEPOINT one_write", kNoTransaction}, RefusedCase{"RELEASE one_write", kNoTransaction},
        RefusedCase{"ROLLBACK TO one_write", kNoTransaction}, RefusedCase{"ATTACH 'other.db' AS other", kNoAttach},
        RefusedCase{"DETACH platform", kNoAttach}, RefusedCase{"CREATE TABLE stray (id INTEGER)", kPlatformOnly},
        RefusedCase{"CREATE TABLE main.stray (id INTEGER)", kPlatformOnly},
        RefusedCase{"SELEC 1", "near \"SELEC\": syntax error"},
        RefusedCase{"SELECT \"name\" FROM platform.sequences WHERE \"no column\" = 1", "no such column: no column"}));

TEST_F(SqliteConnectTest, BlanksAndCommentsAroundAStatementAreFine) {
  EXPECT_TRUE(connection_->Execute("  -- first\n INSERT INTO platform.item (id) VALUES (1) ; /* last */ -- end"));
  EXPECT_TRUE(connection_->Query("/* x */ SELECT id FROM platform.item ;; "));
  EXPECT_EQ(connection_->GetInt("id"), 1);
}

TEST_F(SqliteConnectTest, SchemaStatementsRun) {
  for (const char* sql :
       {"CREATE INDEX platform.item_name ON item (name)", "ALTER TABLE platform.item ADD COLUMN extra",
        "ALTER TABLE platform.item RENAME COLUMN extra TO more", "ALTER TABLE platform.item DROP COLUMN more",
        "ALTER TABLE platform.item RENAME TO thing", "CREATE VIEW platform.names AS SELECT name FROM thing",
        "DROP VIEW platform.names", "DROP INDEX platform.item_name", "REINDEX platform.thing", "ANALYZE platform",
        "DROP TABLE platform.thing"}) {
    EXPECT_TRUE(connection_->Execute(sql)) << sql << ": " << ErrorOf(*connection_);
  }
}

TEST_F(SqliteConnectTest, StatementsThatCannotShareATransactionRunAlone) {
  ASSERT_TRUE(connection_->Execute("/* schema */ pragma platform.user_version = 7"));
  ASSERT_TRUE(connection_->Query("PRAGMA platform.user_version"));
  EXPECT_EQ(connection_->GetInt(0), 7);
  EXPECT_TRUE(connection_->Execute("VACUUM platform")) << ErrorOf(*connection_);
  EXPECT_TRUE(connection_->Execute("PRAGMA platform.wal_checkpoint(TRUNCATE)")) << ErrorOf(*connection_);
  EXPECT_EQ(std::filesystem::file_size(path_ + "-wal"), 0U);
}

TEST_F(SqliteConnectTest, ExecuteAllIsAllOrNothing) {
  EXPECT_FALSE(
      connection_->ExecuteAll({"INSERT INTO platform.item (id) VALUES (1)", "CREATE TABLE platform.other (id INTEGER)",
                               "INSERT INTO platform.item (id) VALUES (1)"}));
  EXPECT_EQ(ErrorOf(*connection_), "UNIQUE constraint failed: item.id");
  EXPECT_EQ(Count(*connection_, "platform.item"), 0);
  EXPECT_FALSE(connection_->Query("SELECT * FROM platform.other"));
  EXPECT_TRUE(
      connection_->ExecuteAll({"INSERT INTO platform.item (id) VALUES (1)", "CREATE TABLE platform.other (id INTEGER)",
                               "INSERT INTO platform.other (id) VALUES (1)"}));
  EXPECT_EQ(Count(*connection_, "platform.other"), 1);
  EXPECT_TRUE(connection_->ExecuteAll({}));
}

TEST_F(SqliteConnectTest, RefusedStatementInsideAMultiRowInsertLeavesNothing) {
  ASSERT_TRUE(Insert(3));
  EXPECT_FALSE(connection_->Execute("INSERT INTO platform.item (id) VALUES (1), (2), (3), (4)"));
  EXPECT_FALSE(connection_->Execute("INSERT OR FAIL INTO platform.item (id) VALUES (1), (2), (3), (4)"));
  EXPECT_FALSE(connection_->Execute("INSERT OR ROLLBACK INTO platform.item (id) VALUES (1), (2), (3), (4)"));
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.item", "id"), "3");
}

TEST_F(SqliteConnectTest, WritersOfManyThreadsSucceedAndFailOneByOne) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 60;
  std::vector<std::thread> threads;
  std::vector<int> failures(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      const auto connection = OpenSqlite(path_);
      for (int round = 0; round < kRounds; ++round) {
        // Every third statement repeats an id of its own, which has to be refused alone.
        const int id = thread * 1000 + (round % 3 == 2 ? round - 1 : round);
        failures[static_cast<std::size_t>(thread)] += Insert(*connection, id) ? 0 : 1;
      }
      EXPECT_EQ(ErrorOf(*connection), "UNIQUE constraint failed: item.id");
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, std::vector<int>(kThreads, kRounds / 3));
  EXPECT_EQ(Count(*connection_, "platform.item"), kThreads * kRounds * 2 / 3);
}

TEST_F(SqliteConnectTest, ReadersSeeWholeCommitsOnly) {
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    const auto connection = OpenSqlite(path_);
    int last = 0;
    while (!stop) {
      const int count = Count(*connection, "platform.item");
      EXPECT_EQ(count % 3, 0);
      EXPECT_GE(count, last);
      last = count;
    }
  });
  for (int id = 0; id < 300; id += 3) {
    const std::string values =
        "(" + std::to_string(id) + "), (" + std::to_string(id + 1) + "), (" + std::to_string(id + 2) + ")";
    EXPECT_TRUE(connection_->Execute("INSERT INTO platform.item (id) VALUES " + values));
  }
  stop = true;
  reader.join();
}

TEST_F(SqliteConnectTest, ClosingPutsEverythingIntoTheFileItself) {
  ASSERT_TRUE(Insert(1));
  EXPECT_TRUE(std::filesystem::exists(path_ + "-wal"));
  connection_.reset();
  EXPECT_FALSE(std::filesystem::exists(path_ + "-wal"));
  std::filesystem::copy(path_, folder_.Path("copy.db"));
  EXPECT_EQ(Count(*OpenSqlite(folder_.Path("copy.db")), "platform.item"), 1);
}

TEST_F(SqliteConnectTest, DifferentSpellingsOfAPathAreOneDatabase) {
  const auto other =
      OpenSqlite((std::filesystem::path(folder_.GetPath()) / "." / "sub" / ".." / "platform.db").string());
  ASSERT_TRUE(Insert(1));
  EXPECT_EQ(Count(*other, "platform.item"), 1);
}

TEST_F(SqliteConnectTest, PathsThatLookLikeSomethingElseAreFiles) {
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(std::filesystem::path(folder_.GetPath()));
  for (const std::string name : {":memory:", "file:x?mode=memory", "it's.db", "\xE5\xAD\x98.db"}) {
    const auto first = OpenSqlite(name);
    ASSERT_TRUE(first->Execute("CREATE TABLE platform.here (id INTEGER)"));
    EXPECT_EQ(Count(*OpenSqlite(name), "platform.here"), 0);
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(folder_.GetPath()) /
                                        std::filesystem::path(std::u8string(name.begin(), name.end()))))
        << name;
  }
  std::filesystem::current_path(before);
}

TEST(SqliteDriverTest, UnusablePathsAreErrorsOfOneLine) {
  const Tansy::Tests::CTempFolder folder;
  for (const std::string& path :
       {std::string(), std::string("a\0b", 3), folder.GetPath(), folder.Path("missing") + "/platform.db"}) {
    std::string error;
    EXPECT_FALSE(OpenSqlite(path, error));
    EXPECT_TRUE(error.starts_with("cannot open the database ")) << error;
    EXPECT_GT(error.size(), path.size() + 27) << error;
  }
}

using RowTexts = std::vector<std::string>;

// The rows as "first/second", with an integer as the last.
bool Show(CConnect& connection, const std::string& sql, RowTexts& rows) {
  return connection.ShowRows(sql, {"name", "none", "id"}, [&rows](const IRow& row) {
    rows.push_back(std::string(row.GetText(0)) + "/" + std::string(row.GetText(1)) + "/" +
                   std::to_string(row.GetInt(2)) + "/" + std::to_string(row.GetInt(3)));
  });
}

TEST_F(SqliteConnectTest, RowsAreShownOneByOne) {
  ASSERT_TRUE(
      connection_->Execute("INSERT INTO platform.item (id, name) VALUES (1, 'a'), (2, NULL), (4294967299, '')"));
  RowTexts rows;
  EXPECT_TRUE(Show(*connection_, "SELECT id, name FROM platform.item ORDER BY id", rows));
  EXPECT_EQ(rows, (RowTexts{"a//1/0", "//2/0", "//3/0"}));
  EXPECT_TRUE(connection_->IsEnd());
  rows.clear();
  EXPECT_TRUE(Show(*connection_, "SELECT * FROM platform.item WHERE id = 77", rows));
  EXPECT_EQ(rows, RowTexts{});
}

TEST_F(SqliteConnectTest, WhatWritesOrFailsIsNotShown) {
  RowTexts rows;
  EXPECT_FALSE(Show(*connection_, "INSERT INTO platform.item (id) VALUES (1) RETURNING id", rows));
  EXPECT_EQ(ErrorOf(*connection_), "only what reads can be shown row by row");
  EXPECT_FALSE(Show(*connection_, "SELECT * FROM platform.none", rows));
  EXPECT_EQ(ErrorOf(*connection_), "no such table: platform.none");
  EXPECT_FALSE(Show(*connection_, "SELECT 1; SELECT 2", rows));
  EXPECT_EQ(rows, RowTexts{});
  EXPECT_EQ(Count(*connection_, "platform.item"), 0);
}

// A failure in the middle is a failure, and the connection works again afterwards.
TEST_F(SqliteConnectTest, ShowingRowsMayFailInTheMiddle) {
  ASSERT_TRUE(connection_->Execute("INSERT INTO platform.item (id, name) VALUES (1, 'a'), (2, 'b'), (3, 'c')"));
  RowTexts rows;
  EXPECT_FALSE(Show(*connection_,
                    "SELECT name, abs(CASE id WHEN 2 THEN -9223372036854775808 ELSE id END) AS id "
                    "FROM platform.item",
                    rows));
  EXPECT_EQ(rows, RowTexts{"a//1/0"});
  EXPECT_EQ(ErrorOf(*connection_), "integer overflow");
  int shown = 0;
  EXPECT_FALSE(connection_->ShowRows("SELECT id FROM platform.item", {"id"}, [&shown](const IRow&) {
    ++shown;
    throw std::bad_alloc();
  }));
  EXPECT_EQ(shown, 1);
  EXPECT_EQ(ErrorOf(*connection_), "out of memory");
  EXPECT_TRUE(connection_->Execute("DELETE FROM platform.item"));
  EXPECT_EQ(Count(*connection_, "platform.item"), 0);
}

}  // namespace
}  // namespace db_layer
