// What is PostgreSQL's alone: addresses, refusals, and what goes wrong between a server and its clients.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "DriverFixture.h"
#include "db_layer/postgresql/PostgresHandle.h"
#include "db_layer/postgresql/PostgresParameters.h"

namespace db_layer {
namespace {

using Tansy::Tests::CPostgresServer;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

TEST(PostgresParametersTest, WhatIsGivenIsTakenAndTheRestLeftToTheLibrary) {
  DBParam param;
  param.host = "db.example";
  param.port = 5433;
  param.user = "tansy";
  param.password = "s3 cret";
  param.database = "cat?sslmode=verify-full&application_name=a%20b%26c&port=5444";
  PostgresParameters parameters;
  std::string error;
  ASSERT_TRUE(ReadPostgresParameters(param, parameters, error)) << error;
  EXPECT_EQ(parameters, (PostgresParameters{{"host", "db.example"},
                                            {"port", "5444"},
                                            {"user", "tansy"},
                                            {"password", "s3 cret"},
                                            {"dbname", "cat"},
                                            {"sslmode", "verify-full"},
                                            {"application_name", "a b&c"}}));
  parameters.clear();
  ASSERT_TRUE(ReadPostgresParameters(DBParam(), parameters, error));
  EXPECT_TRUE(parameters.empty());
}

TEST(PostgresParametersTest, WhatIsNoParameterIsRefused) {
  for (const char* database : {"cat?sslmode", "cat?=x", "cat?a=%4", "cat?a=%zz", "cat?a=%00"}) {
    DBParam param;
    param.database = database;
    PostgresParameters parameters;
    std::string error;
    EXPECT_FALSE(ReadPostgresParameters(param, parameters, error)) << database;
    EXPECT_THAT(error, HasSubstr("keyword=value"));
  }
}

TEST(PostgresParametersTest, TheAddressMayHaveTimesOfItsOwn) {
  PostgresParameters parameters{{"connect_timeout", "7"}, {"options", "-c work_mem=8MB"}};
  AddPostgresSettings(false, true, 30000, parameters);
  EXPECT_EQ(parameters["connect_timeout"], "7");
  EXPECT_EQ(parameters["tcp_user_timeout"], "30000");
  EXPECT_THAT(parameters["options"], AllOf(HasSubstr("-c work_mem=8MB "), HasSubstr("statement_timeout=15000"),
                                           HasSubstr("lock_timeout=10000"), Not(HasSubstr("synchronous_commit"))));
  parameters.clear();
  AddPostgresSettings(true, false, 30000, parameters);
  EXPECT_THAT(parameters["options"],
              AllOf(HasSubstr("read_only=on"), HasSubstr("synchronous_commit=off"), HasSubstr("statement_timeout=0")));
}

TEST(PostgresParametersTest, MessagesNameNoPassword) {
  DBParam param;
  param.type = kPostgresql;
  param.host = "::1";
  param.port = 5433;
  param.user = "u";
  param.password = "s3cret";
  param.database = "cat?sslpassword=other";
  EXPECT_EQ(DescribeDatabase(param), "postgresql://u@[::1]:5433/cat");
  param = DBParam();
  param.type = kPostgresql;
  param.database = "cat";
  EXPECT_EQ(DescribeDatabase(param), "postgresql:///cat");
}

TEST(PostgresHandleTest, ServersAndDatabasesThatDoNotFitAreRefused) {
  EXPECT_EQ(PostgresObjection(150004, "SQL_ASCII", "cat"), "");
  EXPECT_EQ(PostgresObjection(130000, "SQL_ASCII", "cat"), "");
  EXPECT_EQ(PostgresObjection(120018, "SQL_ASCII", "cat"), "the server is PostgreSQL 12; 13 or later is needed");
  EXPECT_THAT(PostgresObjection(150004, "UTF8", "cat"), HasSubstr("CREATE DATABASE cat ENCODING 'SQL_ASCII'"));
}

TEST(PostgresHandleTest, CodesMeanTheSameAsElsewhere) {
  EXPECT_EQ(PostgresErrorCode("23505"), kErrorConstraint);
  EXPECT_EQ(PostgresErrorCode("P0001"), kErrorConstraint);
  EXPECT_EQ(PostgresErrorCode("55P03"), kErrorBusy);
  EXPECT_EQ(PostgresErrorCode("57P01"), kErrorBusy);
  EXPECT_EQ(PostgresErrorCode("TNL01"), kErrorBusy) << "a process that may not write now";
  EXPECT_EQ(PostgresErrorCode("53100"), kErrorFull);
  EXPECT_EQ(PostgresErrorCode("25006"), kErrorReadOnly);
  EXPECT_EQ(PostgresErrorCode("42P01"), 1);
  EXPECT_EQ(PostgresErrorCode(""), 1);
}

TEST(PostgresHandleTest, CallersDoNotControlTransactionsAndConnections) {
  SqlError error;
  for (const char* sql : {"BEGIN", "commit", " /* x */ END;", "-- x\nROLLBACK", ";; ABORT", "SAVEPOINT a",
                          "start transaction", "RELEASE a", "LOCK TABLE platform.item"}) {
    EXPECT_FALSE(IsCallersStatement(sql, error)) << sql;
    EXPECT_EQ(error.text, "transactions are not the caller's to control") << sql;
  }
  for (const char* sql : {"SET search_path = public", "COPY platform.item FROM STDIN", "DISCARD ALL", "reset all"}) {
    EXPECT_FALSE(IsCallersStatement(sql, error)) << sql;
    EXPECT_EQ(error.text, "connections are not the caller's to change") << sql;
  }
  for (const char* sql : {"", " ; ", "-- nothing"}) {
    EXPECT_FALSE(IsCallersStatement(sql, error)) << sql;
    EXPECT_EQ(error.text, "the statement is empty") << sql;
  }
  for (const char* sql : {"SELECT 1", "INSERT INTO t VALUES ('; COMMIT')", "settings", "DELETE FROM t;"}) {
    EXPECT_TRUE(IsCallersStatement(sql, error)) << sql;
  }
}

class PostgresTest : public CDriverFixture {
 protected:
  PostgresTest() : CDriverFixture(true) {}
  void SetUp() override {
    server_.Start();
    CDriverFixture::SetUp();
  }
  ~PostgresTest() override { SetPostgresTimeout(30000); }

  std::string OpeningError(const DBParam& param) {
    std::string error;
    EXPECT_EQ(BuiltInDriver(kPostgresql)->Open(param, error), nullptr);
    return error;
  }
  // Connects anew with a server that may be silent no longer than this.
  void UseTimeout(int milliseconds) {
    SetPostgresTimeout(milliseconds);
    connection_.reset();
    connection_ = Open();
    ASSERT_TRUE(Insert(1000));
  }
  // Has the server end the connection that inserts a row, while it does so or at the commit.
  void EndWriterAt(const std::string& time) {
    server_.Run(
        "CREATE FUNCTION platform.end_it() RETURNS trigger LANGUAGE plpgsql SECURITY DEFINER AS $$ BEGIN "
        "PERFORM pg_terminate_backend(pg_backend_pid()); PERFORM pg_sleep(60); RETURN NEW; END $$;"
        "CREATE CONSTRAINT TRIGGER end_it AFTER INSERT ON platform.item DEFERRABLE INITIALLY " +
        time + " FOR EACH ROW EXECUTE FUNCTION platform.end_it()");
  }
  std::vector<std::string> Ids() { return server_.Rows("SELECT id FROM platform.item ORDER BY id"); }
  void WaitFor(const std::string& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (server_.Rows("SELECT 1 FROM pg_stat_activity WHERE " + condition).empty()) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << condition;
      std::this_thread::yield();
    }
  }

  CPostgresServer& server_ = CPostgresServer::Shared();
};

using Texts = std::vector<std::string>;

TEST_F(PostgresTest, WhatIsMissingIsSaidInOneLine) {
  DBParam param = PostgresParam();
  param.database = "nobody's";
  EXPECT_EQ(OpeningError(param), "cannot open the database postgresql://tansy@" + server_.GetHost() +
                                     "/nobody's: connection to server on socket \"" + server_.GetHost() +
                                     "/.s.PGSQL.5432\" failed: FATAL:  database \"nobody's\" does not exist ");
  param = PostgresParam();
  param.host = "/nowhere";
  EXPECT_THAT(OpeningError(param), AllOf(HasSubstr("No such file or directory"), Not(HasSubstr("\n"))));
  param = PostgresParam("nonsense=1");
  EXPECT_THAT(OpeningError(param), HasSubstr("invalid connection option \"nonsense\""));
  server_.Run("CREATE DATABASE utf8 ENCODING 'UTF8' TEMPLATE template0", "postgres");
  param = PostgresParam();
  param.database = "utf8";
  EXPECT_THAT(OpeningError(param), HasSubstr("the database has the encoding UTF8"));
  server_.Run("DROP DATABASE utf8", "postgres");
}

TEST_F(PostgresTest, PasswordsAreTakenFromTheParametersAndNeverShown) {
  DBParam param = PostgresParam();
  param.user = CPostgresServer::kLocked;
  EXPECT_THAT(OpeningError(param), HasSubstr("no password supplied"));
  param.password = "wr0ng";
  EXPECT_THAT(OpeningError(param),
              AllOf(HasSubstr("password authentication failed for user \"locked\""), Not(HasSubstr("wr0ng"))));
  param.password = CPostgresServer::kPassword;
  std::string error;
  EXPECT_NE(BuiltInDriver(kPostgresql)->Open(param, error), nullptr) << error;
}

TEST_F(PostgresTest, MissingTablesAndRightsAreSaid) {
  EXPECT_FALSE(connection_->Execute("INSERT INTO platform.absent VALUES (1)"));
  EXPECT_EQ(ErrorOf(*connection_), "relation \"platform.absent\" does not exist");
  server_.Run("ALTER TABLE platform.item OWNER TO postgres; REVOKE ALL ON platform.item FROM tansy");
  EXPECT_FALSE(Insert(1));
  EXPECT_EQ(ErrorOf(*connection_), "permission denied for table item");
  EXPECT_FALSE(connection_->Query("SELECT * FROM platform.item"));
  EXPECT_EQ(ErrorOf(*connection_), "permission denied for table item");
}

TEST_F(PostgresTest, NamesWithoutASchemaAreNobodys) {
  EXPECT_FALSE(connection_->Execute("CREATE TABLE stray (id integer)"));
  EXPECT_FALSE(connection_->Query("SELECT * FROM item"));
  EXPECT_FALSE(connection_->Execute("INSERT INTO platform.item (id) VALUES (1); DELETE FROM platform.item"));
  EXPECT_TRUE(Ids().empty());
}

TEST_F(PostgresTest, ASecondProgramThatWritesIsRefused) {
  ASSERT_TRUE(Insert(1));
  std::string error;
  const auto other = BuiltInDriver(kPostgresql)->Open(PostgresParam("application_name=other"), error);
  ASSERT_TRUE(other) << error;
  EXPECT_FALSE(Insert(*other, 2));
  EXPECT_EQ(ErrorOf(*other), "the database is in use by another program that writes to it");
  EXPECT_EQ(Column(*other, "SELECT id FROM platform.item", "id"), "1");
  connection_.reset();
  while (!Insert(*other, 2)) {
    std::this_thread::yield();
  }
  EXPECT_EQ(Ids(), (Texts{"1", "2"}));
}

TEST_F(PostgresTest, ValuesOfASequenceAreGivenOnceByTwoPrograms) {
  ASSERT_TRUE(connection_->Query("SELECT nextval('platform.item_id_seq')"));
  EXPECT_EQ(connection_->GetInt(0), 1);
  EXPECT_EQ(server_.Rows("SELECT nextval('platform.item_id_seq')"), (Texts{"1025"}));
  for (int i = 2; i <= 1024; ++i) {
    ASSERT_TRUE(connection_->Query("SELECT nextval('platform.item_id_seq')"));
    ASSERT_EQ(connection_->GetInt(0), i);
  }
  ASSERT_TRUE(connection_->Query("SELECT nextval('platform.item_id_seq')"));
  EXPECT_EQ(connection_->GetInt(0), 1026);
  EXPECT_FALSE(connection_->Query("SELECT nextval('platform.absent_seq')"));
  EXPECT_EQ(ErrorOf(*connection_), "relation \"platform.absent_seq\" does not exist");
}

// A server that was set back, or has lost its last commits in a crash, gives the same values once more, and to others.
TEST_F(PostgresTest, ValuesThatTheServerHasForgottenAreGivenUp) {
  const auto next = [this] {
    EXPECT_TRUE(connection_->Query("SELECT nextval('platform.item_id_seq')")) << ErrorOf(*connection_);
    return connection_->GetInt(0);
  };
  EXPECT_EQ(next(), 1);
  server_.Run("SELECT setval('platform.item_id_seq', 1, false)");
  server_.Run("INSERT INTO platform.item (id) SELECT nextval('platform.item_id_seq') FROM generate_series(1, 1024)");
  server_.EndConnections();
  Insert(next());  // this finds the connection lost
  const int id = next();
  EXPECT_GT(id, 1024);
  EXPECT_TRUE(Insert(id)) << ErrorOf(*connection_);
}

TEST_F(PostgresTest, DurabilityIsWhatWasAskedFor) {
  const auto setting = [this] { return Column(*connection_, "SHOW synchronous_commit", "synchronous_commit"); };
  EXPECT_EQ(setting(), "on");
  connection_.reset();
  SetPostgresFullDurability(false);
  connection_ = Open();
  SetPostgresFullDurability(true);
  EXPECT_EQ(setting(), "off");
}

// A server whose administrator has switched it off waits all the same, because a commit is a promise.
TEST_F(PostgresTest, FullDurabilityDoesNotTrustTheServersSetting) {
  server_.Run("ALTER ROLE tansy SET synchronous_commit = off");
  connection_.reset();
  connection_ = Open();
  ASSERT_TRUE(
      connection_->Query("INSERT INTO platform.item (id, name) VALUES (1, current_setting('synchronous_commit')) "
                         "RETURNING name"));
  EXPECT_EQ(connection_->GetString("name"), "on");
  server_.Run("ALTER ROLE tansy RESET synchronous_commit");
}

TEST_F(PostgresTest, ConnectionsThatWereEndedAreReplaced) {
  for (int id = 1; id <= 3; ++id) {
    ASSERT_EQ(Count(*connection_, "platform.item"), id - 1);
    EXPECT_GE(server_.EndConnections(), 1);
    EXPECT_TRUE(Insert(id)) << ErrorOf(*connection_);
    EXPECT_GE(server_.EndConnections(), 1);
    EXPECT_TRUE(connection_->Query("SELECT nextval('platform.item_id_seq')")) << ErrorOf(*connection_);
  }
}

// A connection for each query would take milliseconds to open, and many at once would use up what the server has.
TEST_F(PostgresTest, ManyWhoReadAtOnceShareAFewConnections) {
  constexpr int kThreads = 32;
  constexpr std::size_t kFew = 16;  // eight, and some more should this machine be very slow
  std::vector<std::string> backends(kThreads);
  std::vector<std::thread> threads;
  for (std::string& backend : backends) {
    threads.emplace_back([this, &backend] {
      const auto connection = Open();
      // Each query takes a moment, so that all want a connection at the same time.
      ASSERT_TRUE(connection->Query("SELECT pg_backend_pid() AS backend, pg_sleep(0.02)")) << ErrorOf(*connection);
      backend = connection->GetString("backend");
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::set<std::string> used(backends.begin(), backends.end());
  EXPECT_FALSE(used.contains(""));
  EXPECT_GE(used.size(), 2U) << "they wait for one another";
  EXPECT_LE(used.size(), kFew);
}

TEST_F(PostgresTest, WritesWaitForARestart) {
  ASSERT_TRUE(Insert(1));
  server_.Crash();
  std::atomic<bool> succeeded{false};
  std::thread writer([&] { succeeded = Insert(2); });
  server_.Start();
  writer.join();
  EXPECT_TRUE(succeeded) << ErrorOf(*connection_);
  EXPECT_EQ(Ids(), (Texts{"1", "2"}));
}

TEST_F(PostgresTest, WithoutAServerWritesFailAndAreNotDoneLater) {
  UseTimeout(500);
  server_.Crash();
  EXPECT_FALSE(Insert(1));
  std::string text;
  EXPECT_EQ(connection_->GetLastError(text), kErrorBusy);
  EXPECT_THAT(ErrorOf(*connection_), HasSubstr("Is the server running"));
  EXPECT_FALSE(connection_->Query("SELECT * FROM platform.item"));
  server_.Start();
  while (!Insert(2)) {
    std::this_thread::yield();
  }
  EXPECT_EQ(Ids(), (Texts{"2", "1000"}));
}

TEST_F(PostgresTest, AConnectionThatEndsInsideATransactionHasWrittenNothing) {
  EndWriterAt("IMMEDIATE");
  EXPECT_FALSE(Insert(1));
  EXPECT_THAT(ErrorOf(*connection_), HasSubstr("terminating connection"));
  EXPECT_TRUE(Ids().empty());
  server_.Run("DROP FUNCTION platform.end_it() CASCADE");
  EXPECT_TRUE(Insert(2)) << ErrorOf(*connection_);
}

TEST_F(PostgresTest, AConnectionThatEndsAtTheCommitIsLookedUpAndHasWrittenNothing) {
  EndWriterAt("DEFERRED");
  EXPECT_FALSE(Insert(1));
  EXPECT_THAT(ErrorOf(*connection_), HasSubstr("terminating connection"));
  EXPECT_TRUE(Ids().empty());
  server_.Run("DROP FUNCTION platform.end_it() CASCADE");
  EXPECT_TRUE(Insert(2)) << ErrorOf(*connection_);
}

// The server has committed, and waits for a standby that does not exist, when the connection ends.
TEST_F(PostgresTest, ACommitWhoseAnswerWasLostIsLookedUpAndHasSucceeded) {
  ASSERT_TRUE(Insert(1));
  server_.Run("ALTER SYSTEM SET synchronous_standby_names = 'nobody'");
  server_.Run("SELECT pg_reload_conf()");
  std::atomic<bool> stop{false};
  int last = 1;
  std::thread writer([&] {
    while (!stop) {
      EXPECT_TRUE(Insert(++last)) << ErrorOf(*connection_);
    }
  });
  WaitFor("wait_event = 'SyncRep'");  // the server takes the new setting up soon, not at once
  stop = true;
  EXPECT_EQ(server_.EndConnections("wait_event = 'SyncRep'"), 1);
  server_.Run("ALTER SYSTEM RESET synchronous_standby_names");
  server_.Run("SELECT pg_reload_conf()");
  writer.join();
  EXPECT_EQ(Ids().size(), static_cast<std::size_t>(last));
}

// Without the table nobody can tell, and that is the answer.
TEST_F(PostgresTest, WithoutMarksACommitWhoseAnswerWasLostIsAFailureThatSaysSo) {
  server_.Run("DROP TABLE platform.commit_marks");
  server_.EndConnections();
  ASSERT_TRUE(Insert(1));
  EndWriterAt("DEFERRED");
  EXPECT_FALSE(Insert(2));
  EXPECT_THAT(ErrorOf(*connection_), HasSubstr("it is not known whether this was committed"));
}

// A process that wrote meanwhile has removed the mark, which tells nothing any more then.
TEST_F(PostgresTest, ACommitInDoubtWhoseMarkIsGoneIsNotRunAgain) {
  ASSERT_TRUE(Insert(1));
  EndWriterAt("DEFERRED");
  std::shared_ptr<void> other;
  std::thread waiting([&] {
    other = server_.Hold(
        "SELECT pg_advisory_lock(1413565779, 1); DELETE FROM platform.commit_marks; COMMIT; "
        "DROP FUNCTION platform.end_it() CASCADE");
  });
  WaitFor("wait_event = 'advisory'");
  std::thread releasing([&] {
    waiting.join();
    other.reset();
  });
  EXPECT_FALSE(Insert(2));
  EXPECT_THAT(ErrorOf(*connection_), HasSubstr("it is not known whether this was committed"));
  releasing.join();
  EXPECT_EQ(Ids(), (Texts{"1"})) << "it did not run again";
  EXPECT_TRUE(Insert(3)) << ErrorOf(*connection_);
}

TEST_F(PostgresTest, AFrozenServerHoldsNobodyForEver) {
  UseTimeout(1000);
  server_.Freeze();
  EXPECT_FALSE(Insert(1));
  EXPECT_NE(ErrorOf(*connection_), "");
  EXPECT_FALSE(connection_->Query("SELECT * FROM platform.item"));
  server_.Thaw();
  while (!Insert(2)) {
    std::this_thread::yield();
  }
  EXPECT_EQ(Ids(), (Texts{"2", "1000"})) << "what failed is not done later";
}

// A statement that waits for a lock ends by itself, and the connection goes on.
TEST_F(PostgresTest, LocksOfOthersAreNotWaitedForLong) {
  UseTimeout(1500);
  std::thread other([&] { server_.Run("BEGIN; LOCK TABLE platform.item; SELECT pg_sleep(2); COMMIT"); });
  WaitFor("wait_event = 'PgSleep'");
  std::string text;
  EXPECT_FALSE(Insert(1));
  EXPECT_EQ(connection_->GetLastError(text), kErrorBusy);
  EXPECT_EQ(text, "canceling statement due to lock timeout");
  other.join();
  EXPECT_TRUE(Insert(2)) << ErrorOf(*connection_);
}

TEST_F(PostgresTest, RowsAreNotShownTwiceWhenTheConnectionEndsInTheMiddle) {
  int shown = 0;
  EXPECT_FALSE(
      connection_->ShowRows("SELECT n AS id FROM generate_series(1, 2000000) AS n", {"id"}, [&](const IRow& row) {
        ++shown;
        EXPECT_EQ(row.GetInt(0), shown);
        if (shown == 1) {
          server_.EndConnections();
        }
      }));
  EXPECT_GE(shown, 1);
  EXPECT_LT(shown, 2000000);
  EXPECT_EQ(Count(*connection_, "platform.item"), 0);
}

// One connection writes for all; when it is ended over and over, each writer is told the truth about its rows.
TEST_F(PostgresTest, WhatWritersAreToldIsTrueWhileConnectionsEnd) {
  constexpr int kThreads = 6;
  std::atomic<bool> stop{false};
  std::atomic<int> acknowledged{0};
  std::vector<std::vector<std::string>> done(kThreads);
  std::vector<std::vector<std::string>> failed(kThreads);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      const auto connection = Open();
      for (int i = 0; !stop; ++i) {
        const int id = thread * 1000000 + i;
        auto& list = Insert(*connection, id) ? done : failed;
        list[static_cast<std::size_t>(thread)].push_back(std::to_string(id));
        ++acknowledged;
      }
    });
  }
  for (int round = 0; round < 30; ++round) {
    const int before = acknowledged;
    while (acknowledged < before + 20) {
      std::this_thread::yield();
    }
    server_.EndConnections();
  }
  stop = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::vector<std::string> rows = Ids();
  std::set<std::string> there(rows.begin(), rows.end());
  for (const auto& list : done) {
    for (const std::string& id : list) {
      EXPECT_EQ(there.erase(id), 1U) << id << " was acknowledged";
    }
  }
  EXPECT_TRUE(there.empty()) << there.size() << " rows were reported as failed";
}

}  // namespace
}  // namespace db_layer
