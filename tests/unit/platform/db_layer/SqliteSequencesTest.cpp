#include "db_layer/SqliteSequences.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "SqliteFixture.h"

namespace db_layer {
namespace {

constexpr const char* kNext = "SELECT nextval('platform.item_id_seq')";

class SqliteSequencesTest : public CSqliteFixture {
 protected:
  void SetUp() override { MakeSchema(); }

  static int Next(CConnect& connection) {
    EXPECT_TRUE(connection.Query(kNext)) << ErrorOf(connection);
    EXPECT_FALSE(connection.IsEnd());
    return connection.GetInt(0);
  }
  std::string Stored() { return Column(*connection_, "SELECT next_value FROM platform.sequences", "next_value"); }
  void Store(const std::string& value) {
    ASSERT_TRUE(connection_->Execute("UPDATE platform.sequences SET next_value = " + value)) << ErrorOf(*connection_);
  }
};

TEST_F(SqliteSequencesTest, ValuesFollowOneAnother) {
  for (int expected = 1; expected <= 200; ++expected) {
    ASSERT_EQ(Next(*connection_), expected);
  }
}

TEST_F(SqliteSequencesTest, BlocksAreCommittedBeforeTheirFirstValue) {
  EXPECT_EQ(Stored(), "1");
  EXPECT_EQ(Next(*connection_), 1);
  EXPECT_EQ(Stored(), "1025");
  for (int i = 2; i <= 1024; ++i) {
    Next(*connection_);
  }
  EXPECT_EQ(Stored(), "1025");
  EXPECT_EQ(Next(*connection_), 1025);
  EXPECT_EQ(Stored(), "2049");
}

// When less than half a block is left, the next write reserves the next block along with its own row.
TEST_F(SqliteSequencesTest, TheNextBlockIsReservedAlongWithAnotherWrite) {
  for (int i = 1; i <= 512; ++i) {
    Next(*connection_);
  }
  ASSERT_TRUE(Insert(1));
  EXPECT_EQ(Stored(), "1025") << "half a block is left";
  EXPECT_EQ(Next(*connection_), 513);
  ASSERT_TRUE(Insert(2));
  EXPECT_EQ(Stored(), "2049");
  ASSERT_TRUE(Insert(3));
  EXPECT_EQ(Stored(), "2049") << "once is enough";
  for (int expected = 514; expected <= 2048; ++expected) {
    ASSERT_EQ(Next(*connection_), expected);
  }
  EXPECT_EQ(Stored(), "2049");
  ASSERT_TRUE(Insert(4));
  EXPECT_EQ(Next(*connection_), 2049);
}

// The write beside it succeeds although there is no further block, and is not asked for one again.
TEST_F(SqliteSequencesTest, ABlockThatIsRefusedAheadHarmsNobody) {
  for (int i = 1; i <= 600; ++i) {
    Next(*connection_);
  }
  Store("'many'");  // reserves on its way, and fails at it
  ASSERT_TRUE(Insert(1));
  ASSERT_TRUE(Insert(2));
  for (int expected = 601; expected <= 1024; ++expected) {
    ASSERT_EQ(Next(*connection_), expected);
  }
  EXPECT_FALSE(connection_->Query(kNext));
  Store("5000");
  EXPECT_EQ(Next(*connection_), 5000);
}

// A write that fails does not take the reservation along.
TEST_F(SqliteSequencesTest, AReservationAheadSurvivesTheFailureOfTheWriteBesideIt) {
  ASSERT_TRUE(Insert(1));
  for (int i = 1; i <= 600; ++i) {
    Next(*connection_);
  }
  EXPECT_FALSE(Insert(1));
  EXPECT_EQ(Stored(), "2049");
  for (int expected = 601; expected <= 1100; ++expected) {
    ASSERT_EQ(Next(*connection_), expected);
  }
}

TEST_F(SqliteSequencesTest, AllConnectionsShareABlock) {
  const auto other = OpenSqlite(path_);
  EXPECT_EQ(Next(*connection_), 1);
  EXPECT_EQ(Next(*other), 2);
  EXPECT_EQ(Next(*connection_), 3);
}

TEST_F(SqliteSequencesTest, ReopeningSkipsWhatWasLeft) {
  EXPECT_EQ(Next(*connection_), 1);
  connection_.reset();
  connection_ = OpenSqlite(path_);
  EXPECT_EQ(Next(*connection_), 1025);
}

TEST_F(SqliteSequencesTest, SequencesAreIndependent) {
  ASSERT_TRUE(connection_->Execute("INSERT INTO platform.sequences (name, next_value) VALUES ('other', 1000)"));
  EXPECT_EQ(Next(*connection_), 1);
  ASSERT_TRUE(
      connection_->Query("SELECT nextval('other') AS a, nextval('platform.item_id_seq') AS b, nextval('other')"));
  EXPECT_EQ(connection_->GetInt("a"), 1000);
  EXPECT_EQ(connection_->GetInt("b"), 2);
  EXPECT_EQ(connection_->GetInt(2), 1001);
}

TEST_F(SqliteSequencesTest, EveryRowOfAQueryGetsAValue) {
  ASSERT_TRUE(connection_->Execute("INSERT INTO platform.item (id) VALUES (1), (2), (3)"));
  EXPECT_EQ(Column(*connection_, "SELECT nextval('platform.item_id_seq') AS v FROM platform.item", "v"), "1,2,3");
}

TEST_F(SqliteSequencesTest, UnknownSequenceIsAnError) {
  EXPECT_FALSE(connection_->Query("SELECT nextval('platform.none_seq')"));
  EXPECT_EQ(ErrorOf(*connection_), "no such sequence, or none of its values left: platform.none_seq");
  EXPECT_TRUE(connection_->IsEnd());
  EXPECT_TRUE(connection_->IsHealthy());
  ASSERT_TRUE(
      connection_->Execute("INSERT INTO platform.sequences (name, next_value) VALUES ('platform.none_seq', 5)"));
  ASSERT_TRUE(connection_->Query("SELECT nextval('platform.none_seq')"));
  EXPECT_EQ(connection_->GetInt(0), 5);
}

TEST_F(SqliteSequencesTest, NamesAreTextAndNothingElse) {
  EXPECT_FALSE(connection_->Query("SELECT nextval('x'' OR 1=1 --')"));
  EXPECT_FALSE(connection_->Query("SELECT nextval('PLATFORM.ITEM_ID_SEQ')"));
  EXPECT_FALSE(connection_->Query("SELECT nextval('')"));
  EXPECT_FALSE(connection_->Query("SELECT nextval()"));
  ASSERT_TRUE(connection_->Query("SELECT nextval(NULL)"));
  EXPECT_EQ(connection_->GetString("nextval(NULL)"), "");
  EXPECT_EQ(Stored(), "1");
}

TEST_F(SqliteSequencesTest, MissingTableIsAnErrorUntilItIsThere) {
  ASSERT_TRUE(connection_->Execute("ALTER TABLE platform.sequences RENAME TO away"));
  EXPECT_FALSE(connection_->Query(kNext));
  EXPECT_EQ(ErrorOf(*connection_), "no such table: platform.sequences");
  ASSERT_TRUE(connection_->Execute("ALTER TABLE platform.away RENAME TO sequences"));
  EXPECT_EQ(Next(*connection_), 1);
}

TEST_F(SqliteSequencesTest, ExhaustedSequenceIsAnError) {
  Store("9223372036854774783");
  ASSERT_TRUE(connection_->Query(kNext));
  EXPECT_EQ(connection_->GetString("nextval('platform.item_id_seq')"), "9223372036854774783");
  Store("9223372036854774784");
  for (int i = 1; i < 1024; ++i) {
    ASSERT_TRUE(connection_->Query(kNext)) << i;
  }
  EXPECT_FALSE(connection_->Query(kNext));
  EXPECT_EQ(Stored(), "9223372036854774784");
}

TEST_F(SqliteSequencesTest, ValueThatIsNoNumberIsAnError) {
  Store("'many'");
  EXPECT_FALSE(connection_->Query(kNext));
  EXPECT_EQ(Stored(), "many");
}

TEST_F(SqliteSequencesTest, StatementsThatWriteCanTakeValuesToo) {
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(connection_->Execute("INSERT INTO platform.item (id) VALUES (nextval('platform.item_id_seq'))"))
        << ErrorOf(*connection_);
  }
  EXPECT_EQ(Count(*connection_, "platform.item"), 100);
  // Values of another block while one is in memory, and then of that one.
  EXPECT_GE(Next(*connection_), 101);
  ASSERT_TRUE(
      connection_->Query("INSERT INTO platform.item (id) VALUES (nextval('platform.item_id_seq')) RETURNING id"));
  EXPECT_GE(connection_->GetInt("id"), 102);
}

TEST_F(SqliteSequencesTest, OneStatementMayTakeManyBlocks) {
  ASSERT_TRUE(connection_->Execute(
      "INSERT INTO platform.item (id) WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000) "
      "SELECT nextval('platform.item_id_seq') FROM n"))
      << ErrorOf(*connection_);
  EXPECT_EQ(Count(*connection_, "platform.item"), 3000);
  EXPECT_GE(Next(*connection_), 3001);
}

TEST_F(SqliteSequencesTest, UndoneStatementTakesItsReservationWithIt) {
  ASSERT_TRUE(Insert(1));
  EXPECT_FALSE(
      connection_->Execute("INSERT INTO platform.item (id) VALUES (nextval('platform.item_id_seq') + 1000), (1)"));
  EXPECT_EQ(Stored(), "1");
  EXPECT_EQ(Next(*connection_), 1);
  EXPECT_EQ(Stored(), "1025");
}

TEST_F(SqliteSequencesTest, DefaultsMayCallNextval) {
  ASSERT_TRUE(connection_->Execute(
      "CREATE TABLE platform.numbered (id INTEGER DEFAULT (nextval('platform.item_id_seq')), name TEXT)"));
  ASSERT_TRUE(connection_->Execute("INSERT INTO platform.numbered (name) VALUES ('a'), ('b')"))
      << ErrorOf(*connection_);
  EXPECT_EQ(Column(*connection_, "SELECT id FROM platform.numbered", "id"), "1,2");
}

TEST_F(SqliteSequencesTest, NoValueIsGivenTwiceToAnyThread) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 200;
  std::vector<std::vector<int>> taken(kThreads);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      auto& mine = taken[static_cast<std::size_t>(thread)];
      const auto connection = OpenSqlite(path_);
      for (int round = 0; round < kRounds; ++round) {
        if (thread % 4 == 3) {
          // These values are taken inside the writer's transaction, and some of the transactions are undone.
          const char* rest = round % 5 == 0 ? ", (1) ON CONFLICT DO NOTHING RETURNING id" : " RETURNING id";
          ASSERT_TRUE(connection->Query(
              std::string("INSERT INTO platform.item (id) VALUES (nextval('platform.item_id_seq'))") + rest))
              << ErrorOf(*connection);
          mine.push_back(connection->GetInt("id"));
        } else {
          mine.push_back(Next(*connection));
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  std::set<int> all;
  for (const auto& mine : taken) {
    all.insert(mine.begin(), mine.end());
  }
  EXPECT_EQ(all.size(), static_cast<std::size_t>(kThreads * kRounds));
}

TEST_F(SqliteSequencesTest, OneReservationServesAllWhoWait) {
  CSqliteSequences* waiting = nullptr;
  int reservations = 0;
  std::int64_t first = 1;
  CSqliteSequences sequences([&](const std::string&, CRowBuffer& rows, SqlError&) {
    ++reservations;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    rows.AddColumn("first_value");
    rows.AddCell(std::to_string(first));
    first += CSqliteSequences::kBlock;
    return true;
  });
  waiting = &sequences;
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([&] {
      std::int64_t value = 0;
      SqlError error;
      EXPECT_TRUE(waiting->NextValue("s", value, error));
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(reservations, 1);
}

TEST_F(SqliteSequencesTest, BlockOfAFileThatIsGoneIsNotUsed) {
  CSqliteSequences* self = nullptr;
  int reservations = 0;
  CSqliteSequences sequences([&](const std::string&, CRowBuffer& rows, SqlError&) {
    ++reservations;
    if (reservations == 1) {
      self->Forget();  // the file was replaced while the block was reserved
    }
    rows.AddColumn("first_value");
    rows.AddCell(reservations == 1 ? "1000" : "1");
    return true;
  });
  self = &sequences;
  std::int64_t value = 0;
  SqlError error;
  ASSERT_TRUE(sequences.NextValue("s", value, error));
  EXPECT_EQ(value, 1);
  EXPECT_EQ(reservations, 2);
}

TEST_F(SqliteSequencesTest, OneFailureAnswersAllWhoWait) {
  std::atomic<int> reservations{0};
  std::atomic<int> arrived{0};
  CSqliteSequences sequences([&](const std::string&, CRowBuffer&, SqlError& error) {
    ++reservations;
    while (arrived < 8) {
      std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    error = {5, "database is locked"};
    return false;
  });
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      ++arrived;
      std::int64_t value = 0;
      SqlError error;
      EXPECT_FALSE(sequences.NextValue("s", value, error));
      EXPECT_EQ(error.code, 5);
      EXPECT_EQ(error.text, "database is locked");
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  // A thread that comes after the failure makes an attempt of its own.
  EXPECT_LE(reservations, 3);
}

}  // namespace
}  // namespace db_layer
