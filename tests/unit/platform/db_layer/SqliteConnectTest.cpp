#include "db_layer/SqliteConnect.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "SqliteFixture.h"

namespace db_layer {
namespace {

class SqliteConnectTest : public CSqliteFixture {
 protected:
  void SetUp() override { MakeSchema(); }
};

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

TEST_F(SqliteConnectTest, WhatIsExecutedLaterIsCommittedOrSaysWhyNot) {
  std::string told;
  const auto tell = [&told](const WriteResult& result) {
    told += result.succeeded ? "done;" : std::to_string(result.code) + " " + result.error + ";";
  };
  connection_->ExecuteLater({"INSERT INTO platform.item (id) VALUES (1)", "INSERT INTO platform.item (id) VALUES (2)"},
                            tell);
  connection_->ExecuteLater({"INSERT INTO platform.item (id) VALUES (3)", "INSERT INTO platform.item (id) VALUES (1)"},
                            tell);
  EXPECT_EQ(told, "done;1555 UNIQUE constraint failed: item.id;");
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.item ORDER BY id", "id"), "1,2");
}

// Whoever is told may give the connection back, which closes the last one of its file.
TEST_F(SqliteConnectTest, TheEndOfAConnectionMayComeWithItsWrite) {
  connection_->ExecuteLater({"INSERT INTO platform.item (id) VALUES (1)"}, [this](const WriteResult& result) {
    EXPECT_TRUE(result.succeeded);
    connection_.reset();
  });
  ASSERT_EQ(connection_, nullptr);
  connection_ = OpenSqlite(path_);
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.item", "id"), "1");
}

TEST_F(SqliteConnectTest, AnEmptyStatementInFrontChangesNothing) {
  ASSERT_TRUE(connection_->Execute(";ALTER TABLE platform.item ADD COLUMN five AS (5)")) << ErrorOf(*connection_);
  ASSERT_TRUE(Insert(1));
  EXPECT_EQ(Column(*connection_, "SELECT five FROM platform.item", "five"), "5");
}

TEST_F(SqliteConnectTest, ErrorsQuoteTheStatementAsItWas) {
  EXPECT_FALSE(connection_->Execute("INSERT INTO platform.item (id, name) VALUES (1, 'a') 'b'"));
  EXPECT_EQ(ErrorOf(*connection_), "near \"'b'\": syntax error");
  EXPECT_FALSE(connection_->Execute("INSERT INTO platform.item (id) VALUES (1, 'a')"));
  EXPECT_EQ(ErrorOf(*connection_), "2 values for 1 columns");
  EXPECT_FALSE(connection_->Execute("DELETE FROM platform.item WHERE id=1; DELETE FROM platform.item WHERE id=2"));
  EXPECT_EQ(ErrorOf(*connection_), "only one statement at a time");
}

TEST_F(SqliteConnectTest, ErrorsAreOneLine) {
  EXPECT_FALSE(connection_->Query("SELECT \"a\nb\x01\" FROM platform.item"));
  const std::string error = ErrorOf(*connection_);
  EXPECT_NE(error.find("a b "), std::string::npos) << error;
  EXPECT_EQ(error.find('\n'), std::string::npos);
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

TEST_F(SqliteConnectTest, RefusedStatementInsideAMultiRowInsertLeavesNothing) {
  ASSERT_TRUE(Insert(3));
  EXPECT_FALSE(connection_->Execute("INSERT INTO platform.item (id) VALUES (1), (2), (3), (4)"));
  EXPECT_FALSE(connection_->Execute("INSERT OR FAIL INTO platform.item (id) VALUES (1), (2), (3), (4)"));
  EXPECT_FALSE(connection_->Execute("INSERT OR ROLLBACK INTO platform.item (id) VALUES (1), (2), (3), (4)"));
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.item", "id"), "3");
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

}  // namespace
}  // namespace db_layer
