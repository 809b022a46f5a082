// Several processes that share a PostgreSQL database: who may write when, and how they hear of each other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DriverFixture.h"
#include "db_layer/DbLayer.h"
#include "db_layer/SharedDatabase.h"

namespace db_layer {
namespace {

using Tansy::Tests::CPostgresServer;
using testing::HasSubstr;
using Texts = std::vector<std::string>;

constexpr const char* kLock = "SELECT pg_advisory_xact_lock(4711)";

class PostgresSharedTest : public CDriverFixture {
 protected:
  PostgresSharedTest() : CDriverFixture(true) {}
  void SetUp() override {
    server_.Start();
    CDriverFixture::SetUp();
    connection_.reset();
  }
  ~PostgresSharedTest() override { SetPostgresPrelude({}); }

  // A connection as another process has it: nothing is shared with the others in this program.
  std::unique_ptr<CConnect> Process(const std::string& name, const std::string& prelude) {
    SetPostgresPrelude(prelude.empty() ? TransactionPrelude() : [prelude] { return prelude; });
    std::string error;
    auto connection = BuiltInDriver(kPostgresql)->Open(PostgresParam("application_name=" + name), error);
    EXPECT_TRUE(connection) << error;
    return connection;
  }
  Texts Ids() { return server_.Rows("SELECT id FROM platform.item ORDER BY id"); }
  // Connections are ended by the server a little after they were closed.
  void WaitForTheLock() {
    while (!server_.Rows("SELECT 1 FROM pg_locks WHERE locktype = 'advisory'").empty()) {
      std::this_thread::yield();
    }
  }

  CPostgresServer& server_ = CPostgresServer::Shared();
};

TEST_F(PostgresSharedTest, ThoseWithAPreludeWriteSideBySideAndKeepTheOneWithoutOut) {
  WaitForTheLock();
  const auto first = Process("first", kLock);
  const auto second = Process("second", kLock);
  const auto alone = Process("alone", "");
  ASSERT_TRUE(Insert(*first, 1)) << ErrorOf(*first);
  ASSERT_TRUE(Insert(*second, 2)) << ErrorOf(*second);
  ASSERT_TRUE(Insert(*first, 3)) << ErrorOf(*first);
  EXPECT_FALSE(Insert(*alone, 4));
  EXPECT_THAT(ErrorOf(*alone), HasSubstr("in use by another program that writes to it"));
  EXPECT_EQ(Ids(), (Texts{"1", "2", "3"}));
  // Both know what became of their commits.
  EXPECT_EQ(server_.Rows("SELECT count(*) FROM platform.commit_marks WHERE batch > 0"), (Texts{"2"}));
}

TEST_F(PostgresSharedTest, TheOneWithoutAPreludeKeepsTheOthersOut) {
  WaitForTheLock();
  const auto alone = Process("alone", "");
  ASSERT_TRUE(Insert(*alone, 1)) << ErrorOf(*alone);
  const auto first = Process("first", kLock);
  EXPECT_FALSE(Insert(*first, 2));
  EXPECT_THAT(ErrorOf(*first), HasSubstr("in use by another program that writes to it"));
}

TEST_F(PostgresSharedTest, TheStatementsOfATransactionComeAfterThePrelude) {
  WaitForTheLock();
  const auto first = Process("first", kLock);
  ASSERT_TRUE(Insert(*first, 1)) << ErrorOf(*first);
  auto held = server_.Hold(kLock);
  std::atomic<bool> is_written{false};
  std::thread writer([&] {
    EXPECT_TRUE(Insert(*first, 2)) << ErrorOf(*first);
    is_written = true;
  });
  while (server_.Rows("SELECT 1 FROM pg_locks WHERE locktype = 'advisory' AND objid = 4711 AND NOT granted").empty()) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(is_written);
  EXPECT_EQ(Ids(), (Texts{"1"}));
  held.reset();
  writer.join();
  EXPECT_EQ(Ids(), (Texts{"1", "2"}));
}

TEST_F(PostgresSharedTest, WhenThePreludeIsRefusedNothingIsWrittenAndItIsNotTriedAgain) {
  WaitForTheLock();
  // A value that a transaction has taken from a sequence is gone, whatever becomes of the transaction.
  const auto first = Process("first", "SELECT 1 / (nextval('platform.item_id_seq') % 1)");
  EXPECT_FALSE(Insert(*first, 1));
  EXPECT_EQ(ErrorOf(*first), "division by zero");
  EXPECT_TRUE(Ids().empty());
  EXPECT_EQ(server_.Rows("SELECT last_value FROM platform.item_id_seq"), (Texts{"1"}));
}

TEST_F(PostgresSharedTest, AWriteThatIsRefusedFailsAloneAndAfterThePreludeToo) {
  WaitForTheLock();
  const auto first = Process("first", kLock);
  ASSERT_TRUE(Insert(*first, 1));
  EXPECT_FALSE(Insert(*first, 1));
  EXPECT_EQ(ErrorOf(*first), DuplicateText());
  EXPECT_TRUE(Insert(*first, 2));
  EXPECT_EQ(Ids(), (Texts{"1", "2"}));
}

// A session whose commit nobody hears of may keep all others out, so it is ended. This one waits for a standby that
// does not exist.
TEST_F(PostgresSharedTest, ASessionInDoubtIsEnded) {
  WaitForTheLock();
  SetPostgresTimeout(1000);
  const auto first = Process("first", kLock);
  SetPostgresTimeout(30000);
  ASSERT_TRUE(Insert(*first, 1)) << ErrorOf(*first);
  const Texts session = server_.Rows(
      "SELECT pid FROM pg_stat_activity WHERE application_name = 'first' AND "
      "query LIKE '%COMMIT%'");
  ASSERT_EQ(session.size(), 1U);
  server_.Run("ALTER SYSTEM SET synchronous_standby_names = 'nobody'");
  server_.Run("SELECT pg_reload_conf()");
  std::atomic<bool> stop{false};
  std::atomic<int> last{1};
  std::thread writer([&] {
    while (!stop) {
      EXPECT_TRUE(Insert(*first, ++last)) << ErrorOf(*first);
    }
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  const auto is_there = [&] {
    return !server_.Rows("SELECT 1 FROM pg_stat_activity WHERE pid = " + session.front()).empty();
  };
  while (is_there() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(is_there()) << "the session in doubt still waits";
  stop = true;
  server_.Run("ALTER SYSTEM RESET synchronous_standby_names");
  server_.Run("SELECT pg_reload_conf()");
  writer.join();
  EXPECT_EQ(Ids().size(), static_cast<std::size_t>(last));
}

class PostgresEarTest : public PostgresSharedTest {
 protected:
  bool Ask(IDatabaseEar& ear, const std::string& sql) {
    answer_.clear();
    return ear.Ask(
        sql, {"value"}, [this](const IRow& row) { answer_ += std::string(row.GetText(0)) + ";"; }, error_);
  }
  bool Hear(IDatabaseEar& ear, bool& heard) {
    return ear.Hear("changes_of_tests", std::chrono::milliseconds(20), heard, error_);
  }

  std::string answer_;
  std::string error_;
};

TEST_F(PostgresEarTest, ItAsksOnAConnectionOfItsOwnWhichIsMadeAnew) {
  const auto ear = MakeDatabaseEar(PostgresParam(), 30000);
  ASSERT_TRUE(ear);
  ASSERT_TRUE(Ask(*ear, "INSERT INTO platform.item (id) VALUES (7), (8) RETURNING id AS value")) << error_;
  EXPECT_EQ(answer_, "7;8;");
  server_.EndConnections();
  ASSERT_TRUE(Ask(*ear, "SELECT id AS value FROM platform.item ORDER BY id")) << error_;
  EXPECT_EQ(answer_, "7;8;");
  EXPECT_FALSE(Ask(*ear, "SELECT 1 / 0 AS value"));
  EXPECT_EQ(error_, "division by zero");
  EXPECT_TRUE(Ask(*ear, "SELECT 9 AS value"));
  server_.Stop();
  EXPECT_FALSE(Ask(*ear, "SELECT 9 AS value"));
  EXPECT_THAT(error_, HasSubstr("No such file or directory"));
  server_.Start();
  EXPECT_TRUE(Ask(*ear, "SELECT 9 AS value")) << error_;
  EXPECT_EQ(MakeDatabaseEar(DBParam(), 30000), nullptr);
}

TEST_F(PostgresEarTest, ItGivesASilentServerUp) {
  const auto ear = MakeDatabaseEar(PostgresParam(), 300);
  ASSERT_TRUE(Ask(*ear, "SELECT 1 AS value")) << error_;
  server_.Freeze();
  EXPECT_FALSE(Ask(*ear, "SELECT 2 AS value"));
  server_.Thaw();
  while (!Ask(*ear, "SELECT 3 AS value")) {
    std::this_thread::yield();
  }
  EXPECT_EQ(answer_, "3;");
}

TEST_F(PostgresEarTest, ItHearsWhatOthersNotifyAndSaysWhenItMayHaveMissedSomething) {
  const auto ear = MakeDatabaseEar(PostgresParam(), 30000);
  bool heard = true;
  EXPECT_FALSE(Hear(*ear, heard));  // it has not listened before
  EXPECT_FALSE(heard);
  EXPECT_TRUE(Hear(*ear, heard)) << error_;
  EXPECT_FALSE(heard);
  for (int i = 0; i < 2; ++i) {
    server_.Run("NOTIFY changes_of_tests");
    for (heard = false; !heard;) {
      ASSERT_TRUE(Hear(*ear, heard)) << error_;
    }
    EXPECT_TRUE(Hear(*ear, heard));
    EXPECT_FALSE(heard);
    if (i == 0) {
      server_.EndConnections();
      while (Hear(*ear, heard)) {
      }
      while (!Hear(*ear, heard)) {
      }
    }
  }
}

}  // namespace
}  // namespace db_layer
