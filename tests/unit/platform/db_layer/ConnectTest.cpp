// What a connection does on every database.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "DriverFixture.h"

namespace db_layer {
namespace {

class ConnectTest : public CDriverFixture {};

using RowTexts = std::vector<std::string>;

// The rows as "first/second", with an integer as the last.
bool Show(CConnect& connection, const std::string& sql, RowTexts& rows) {
  return connection.ShowRows(sql, {"name", "none", "id"}, [&rows](const IRow& row) {
    rows.push_back(std::string(row.GetText(0)) + "/" + std::string(row.GetText(1)) + "/" +
                   std::to_string(row.GetInt(2)) + "/" + std::to_string(row.GetInt(3)));
  });
}

TEST_F(ConnectTest, RowsAreReadByColumn) {
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

TEST_F(ConnectTest, EmptyResultIsASuccessAtItsEnd) {
  EXPECT_TRUE(connection_->Query("SELECT * FROM platform.item"));
  EXPECT_TRUE(connection_->IsEnd());
  EXPECT_EQ(connection_->GetString("id"), "");
}

TEST_F(ConnectTest, IntegersAreTheLowBits) {
  ASSERT_TRUE(connection_->Execute("INSERT INTO platform.item (id, name) VALUES (4294967295, '3000000000')"));
  ASSERT_TRUE(connection_->Query("SELECT * FROM platform.item"));
  EXPECT_EQ(static_cast<std::uint32_t>(connection_->GetInt("id")), 4294967295U);
  EXPECT_EQ(static_cast<std::uint32_t>(connection_->GetInt("name")), 3000000000U);
}

TEST_F(ConnectTest, TextsComeBackAsTheyWere) {
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
TEST_F(ConnectTest, EachStatementHasItsOwnValues) {
  for (const char* values : {"(1, 'one')", "(-2, '')", "(3, 'it''s')", "(4, NULL)", "(5, 5)", "(6, '6')"}) {
    ASSERT_TRUE(connection_->Execute(std::string("INSERT INTO platform.item (id, name) VALUES ") + values));
  }
  ASSERT_TRUE(connection_->Execute("UPDATE platform.item SET name='zwei' WHERE id=-2"));
  ASSERT_TRUE(connection_->Execute("UPDATE platform.item SET name='drei' WHERE id=3"));
  ASSERT_TRUE(connection_->Execute("DELETE FROM platform.item WHERE id=1"));
  ASSERT_TRUE(connection_->Execute("DELETE FROM platform.item WHERE id=99"));
  const std::string all = "SELECT id, name, name IS NULL AS is_null FROM platform.item ORDER BY id";
  EXPECT_EQ(Column(*connection_, all, "id"), "-2,3,4,5,6");
  EXPECT_EQ(Column(*connection_, all, "name"), "zwei,drei,,5,6");
  EXPECT_EQ(Column(*connection_, all, "is_null"), is_on_postgresql_ ? "f,f,t,f,f" : "0,0,1,0,0");
}

TEST_F(ConnectTest, KeptStatementsFollowTheSchema) {
  ASSERT_TRUE(Insert(1));
  EXPECT_EQ(Column(*connection_, "SELECT * FROM platform.item", "id"), "1");
  ASSERT_TRUE(connection_->Execute("ALTER TABLE platform.item ADD COLUMN extra TEXT DEFAULT 'more'"));
  ASSERT_TRUE(Insert(2));
  EXPECT_EQ(Column(*connection_, "SELECT * FROM platform.item", "extra"), "more,more");
  ASSERT_TRUE(connection_->Execute("DROP TABLE platform.item"));
  EXPECT_FALSE(Insert(3));
  EXPECT_EQ(ErrorOf(*connection_), AbsentText("platform.item"));
  EXPECT_FALSE(connection_->Query("SELECT * FROM platform.item"));
  ASSERT_TRUE(connection_->Execute("CREATE TABLE platform.item (id TEXT, name TEXT)"));
  ASSERT_TRUE(Insert(3));
  EXPECT_EQ(Column(*connection_, "SELECT * FROM platform.item", "id"), "3");
}

TEST_F(ConnectTest, AFailedStatementDoesNotSpoilTheNextOfItsKind) {
  ASSERT_TRUE(Insert(1));
  for (int round = 0; round < 3; ++round) {
    EXPECT_FALSE(Insert(1));
    EXPECT_EQ(ErrorOf(*connection_), DuplicateText());
    EXPECT_TRUE(Insert(2 + round));
  }
  EXPECT_EQ(Count(*connection_, "platform.item"), 4);
}

TEST_F(ConnectTest, ExecuteEndsTheRowsOfTheQueryBefore) {
  ASSERT_TRUE(Insert(1));
  ASSERT_TRUE(connection_->Query("SELECT * FROM platform.item"));
  ASSERT_FALSE(connection_->IsEnd());
  ASSERT_TRUE(Insert(2));
  EXPECT_TRUE(connection_->IsEnd());
}

TEST_F(ConnectTest, EveryConnectionSeesWhatIsCommitted) {
  const auto other = Open();
  for (int id = 1; id <= 20; ++id) {
    ASSERT_TRUE(Insert(id % 2 == 0 ? *connection_ : *other, id));
    EXPECT_EQ(Count(*connection_, "platform.item"), id);
    EXPECT_EQ(Count(*other, "platform.item"), id);
  }
}

TEST_F(ConnectTest, RowsInHandHoldNothingUp) {
  ASSERT_TRUE(Insert(1));
  ASSERT_TRUE(connection_->Query("SELECT * FROM platform.item"));
  const auto other = Open();
  EXPECT_TRUE(other->Execute("DELETE FROM platform.item"));
  EXPECT_TRUE(other->Execute("DROP TABLE platform.item"));
  EXPECT_EQ(connection_->GetString("name"), "n");
}

TEST_F(ConnectTest, QueryThatWritesIsCommittedLikeExecute) {
  ASSERT_TRUE(connection_->Query("INSERT INTO platform.item (id, name) VALUES (5, 'five') RETURNING id, name"));
  EXPECT_EQ(connection_->GetInt("id"), 5);
  EXPECT_EQ(connection_->GetString("name"), "five");
  EXPECT_EQ(Count(*Open(), "platform.item"), 1);
}

TEST_F(ConnectTest, LastErrorStaysUntilTheNext) {
  std::string text = "x";
  EXPECT_EQ(connection_->GetLastError(text), 0);
  EXPECT_EQ(text, "");
  EXPECT_FALSE(connection_->Execute("INSERT INTO platform.absent VALUES (1)"));
  EXPECT_NE(connection_->GetLastError(text), 0);
  EXPECT_EQ(text, AbsentText("platform.absent"));
  EXPECT_TRUE(Insert(1));
  EXPECT_EQ(ErrorOf(*connection_), AbsentText("platform.absent"));
  EXPECT_FALSE(Insert(1));
  EXPECT_EQ(ErrorOf(*connection_), DuplicateText());
  EXPECT_TRUE(connection_->IsHealthy());
}

TEST_F(ConnectTest, NulByteIsRefusedAndNothingBeforeItRuns) {
  ASSERT_TRUE(Insert(1));
  const std::string sql("DELETE FROM platform.item\0 WHERE id = 7", 39);
  EXPECT_FALSE(connection_->Execute(sql));
  EXPECT_EQ(ErrorOf(*connection_), "the statement holds a NUL byte");
  EXPECT_FALSE(connection_->Query(std::string("SELECT 1\0", 9)));
  EXPECT_EQ(Count(*connection_, "platform.item"), 1);
}

TEST_F(ConnectTest, BlanksAndCommentsAroundAStatementAreFine) {
  EXPECT_TRUE(connection_->Execute("  -- first\n INSERT INTO platform.item (id) VALUES (1) ; /* last */ -- end"));
  EXPECT_TRUE(connection_->Query("/* x */ SELECT id FROM platform.item ;; "));
  EXPECT_EQ(connection_->GetInt("id"), 1);
}

TEST_F(ConnectTest, ExecuteAllIsAllOrNothing) {
  EXPECT_FALSE(
      connection_->ExecuteAll({"INSERT INTO platform.item (id) VALUES (1)", "CREATE TABLE platform.other (id INTEGER)",
                               "INSERT INTO platform.item (id) VALUES (1)"}));
  EXPECT_EQ(ErrorOf(*connection_), DuplicateText());
  EXPECT_EQ(Count(*connection_, "platform.item"), 0);
  EXPECT_FALSE(connection_->Query("SELECT * FROM platform.other"));
  EXPECT_TRUE(
      connection_->ExecuteAll({"INSERT INTO platform.item (id) VALUES (1)", "CREATE TABLE platform.other (id INTEGER)",
                               "INSERT INTO platform.other (id) VALUES (1)"}));
  EXPECT_EQ(Count(*connection_, "platform.other"), 1);
  EXPECT_TRUE(connection_->ExecuteAll({}));
}

TEST_F(ConnectTest, WritersOfManyThreadsSucceedAndFailOneByOne) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 60;
  std::vector<std::thread> threads;
  std::vector<int> failures(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      const auto connection = Open();
      for (int round = 0; round < kRounds; ++round) {
        // Every third statement repeats an id of its own, which has to be refused alone.
        const int id = thread * 1000 + (round % 3 == 2 ? round - 1 : round);
        failures[static_cast<std::size_t>(thread)] += Insert(*connection, id) ? 0 : 1;
      }
      EXPECT_EQ(ErrorOf(*connection), DuplicateText());
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, std::vector<int>(kThreads, kRounds / 3));
  EXPECT_EQ(Count(*connection_, "platform.item"), kThreads * kRounds * 2 / 3);
}

TEST_F(ConnectTest, ReadersSeeWholeCommitsOnly) {
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    const auto connection = Open();
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

TEST_F(ConnectTest, RowsAreShownOneByOne) {
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

TEST_F(ConnectTest, WhatWritesOrFailsIsNotShown) {
  RowTexts rows;
  EXPECT_FALSE(Show(*connection_, "INSERT INTO platform.item (id) VALUES (1) RETURNING id", rows));
  EXPECT_EQ(ErrorOf(*connection_), "only what reads can be shown row by row");
  EXPECT_FALSE(Show(*connection_, "SELECT * FROM platform.none", rows));
  EXPECT_EQ(ErrorOf(*connection_), AbsentText("platform.none"));
  EXPECT_FALSE(Show(*connection_, "SELECT 1; SELECT 2", rows));
  EXPECT_EQ(rows, RowTexts{});
  EXPECT_EQ(Count(*connection_, "platform.item"), 0);
}

// A failure in the middle is a failure, and the connection works again afterwards.
TEST_F(ConnectTest, ShowingRowsMayFailInTheMiddle) {
  ASSERT_TRUE(connection_->Execute("INSERT INTO platform.item (id, name) VALUES (1, 'a'), (2, 'b'), (3, 'c')"));
  RowTexts rows;
  const std::string fails_for_2 =
      is_on_postgresql_ ? "3 + 2 / (id - 2)" : "abs(CASE id WHEN 2 THEN -9223372036854775808 ELSE id END)";
  EXPECT_FALSE(Show(*connection_, "SELECT name, " + fails_for_2 + " AS id FROM platform.item", rows));
  EXPECT_EQ(rows, RowTexts{"a//1/0"});
  EXPECT_EQ(ErrorOf(*connection_), is_on_postgresql_ ? "division by zero" : "integer overflow");
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

std::shared_ptr<CConnect> ApplyShared() {
  return {DBLayer_ApplyConn("test"), DBLayer_FreeConn};
}

// This is how the catalogue works: it takes one connection for an id and then another one for the row, on more threads
// than there are connections.
TEST_F(ConnectTest, CrowdTakesValuesAndWritesRows) {
  ASSERT_TRUE(Module_Register(Param(), "test"));
  constexpr int kThreads = 24;
  constexpr int kRounds = 25;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([] {
      for (int round = 0; round < kRounds; ++round) {
        int id = 0;
        {
          const auto connection = ApplyShared();
          ASSERT_TRUE(connection) << LastRegisterError("test");
          ASSERT_TRUE(connection->Query("SELECT nextval('platform.item_id_seq')")) << ErrorOf(*connection);
          id = connection->GetInt(0);
        }
        const auto connection = ApplyShared();
        ASSERT_TRUE(connection) << LastRegisterError("test");
        EXPECT_TRUE(Insert(*connection, id)) << ErrorOf(*connection);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  Module_Unregister("test");
  EXPECT_EQ(Count(*connection_, "platform.item"), kThreads * kRounds);
}

}  // namespace
}  // namespace db_layer
