// Tests a tansyd whose catalogue is in PostgreSQL: what it keeps where, what it says when something is missing, and
// what its clients notice when the database goes away.
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "fakes/PostgresServer.h"
#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using Tansy::Tests::CPostgresServer;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class PostgresTest : public TansydTest {
 protected:
  PostgresTest() {
    database_.Start();
    database_.Run("DROP SCHEMA IF EXISTS platform CASCADE");
  }

  Launch With(const std::string& url, std::vector<std::string> arguments = {}) {
    Launch launch;
    launch.arguments = {"--database", url};
    launch.arguments.insert(launch.arguments.end(), arguments.begin(), arguments.end());
    return launch;
  }
  Launch OnServer(std::vector<std::string> arguments = {}) { return With(database_.Url(), std::move(arguments)); }
  // The address of a user whose password is asked for.
  std::string LockedUrl(const std::string& password) {
    std::string url = database_.Url();
    const std::string user = "//tansy@";
    url.replace(url.find(user), user.size(), "//locked" + (password.empty() ? "" : ":" + password) + "@");
    return url.replace(url.rfind("/tansy"), 6, "/locked");
  }
  void MakeLockedDatabase() {
    if (database_.Rows("SELECT 1 FROM pg_database WHERE datname = 'locked'").empty()) {
      database_.Run("CREATE DATABASE locked OWNER locked", "postgres");
    }
    database_.Run("DROP SCHEMA IF EXISTS platform CASCADE", "locked");
  }
  void ExpectFailure(const Launch& launch, const std::string& words) {
    const Ended ended = server_.RunToEnd(launch);
    EXPECT_EQ(ended.code, 1) << words;
    EXPECT_THAT(ended.err, HasSubstr(words));
    EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
  }

  CPostgresServer& database_ = CPostgresServer::Shared();
};

TEST_F(PostgresTest, RowsAreOnTheServerBytesInTheFolderAndBothOutliveARestart) {
  ASSERT_TRUE(server_.Start(OnServer()));
  const std::string large = RandomBytes(200000, 1);
  MakeBucket("bucket");
  Put("/bucket/small", "small");
  Put("/bucket/small", "small again");
  Put("/bucket/large", large);
  Put("/bucket/gone", "gone");
  Put("/bucket/it's\xE4\\", "any bytes");
  EXPECT_EQ(Outcome(Send("DELETE", "/bucket/gone?deletefile")), "200");
  EXPECT_TRUE(server_.Stop());
  EXPECT_FALSE(std::filesystem::exists(server_.Data("catalogue.db")));
  EXPECT_EQ(database_.Rows("SELECT name, size FROM platform.local_object ORDER BY name COLLATE \"C\""),
            (std::vector<std::string>{"it's\xE4\\|9", "large|200000", "small|11"}));
  ASSERT_TRUE(server_.Start(OnServer()));
  EXPECT_EQ(Get("/bucket/small"), "small again");
  EXPECT_TRUE(Get("/bucket/large") == large);
  EXPECT_EQ(Get("/bucket/it's\xE4\\"), "any bytes");
  EXPECT_EQ(Outcome(Send("GET", "/bucket/gone")), "404 NoSuchKey");
}

TEST_F(PostgresTest, AnUploadInPartsBecomesAnObject) {
  ASSERT_TRUE(server_.Start(OnServer()));
  MakeBucket("bucket");
  const std::string id = XmlValue(Send("POST", "/bucket/parts?uploads").body, "UploadId");
  ASSERT_NE(id, "");
  std::string list = "<CompleteMultipartUpload><TotalPartNum>2</TotalPartNum>";
  std::string whole;
  for (const char* number : {"1", "2"}) {
    const std::string part = RandomBytes(300000, static_cast<unsigned>(number[0]));
    const std::string target = "/bucket/parts?upload_id=" + id + "&part_number=" + number;
    EXPECT_EQ(Outcome(Send("POST", target, part)), "200");
    whole += part;
    list += std::string("<Part><PartNumber>") + number + "</PartNumber><PartSize>300000</PartSize></Part>";
  }
  list += "</CompleteMultipartUpload>";
  EXPECT_EQ(Outcome(Send("POST", "/bucket/parts?upload_id=" + id, list)), "200") << server_.GetLog();
  EXPECT_TRUE(Get("/bucket/parts") == whole);
  EXPECT_TRUE(database_.Rows("SELECT 1 FROM platform.local_object_task").empty());
}

TEST_F(PostgresTest, APasswordIsSeenByNobody) {
  MakeLockedDatabase();
  ASSERT_TRUE(server_.Start(With(LockedUrl("pa%3Ass%40word"), {"--log-level", "2"})));
  std::ifstream command_line("/proc/" + std::to_string(server_.GetPid()) + "/cmdline");
  const std::string shown((std::istreambuf_iterator<char>(command_line)), std::istreambuf_iterator<char>());
  EXPECT_THAT(shown, AllOf(HasSubstr("//locked:xxxxxxxx"), Not(HasSubstr("word"))));
  MakeBucket("bucket");
  Put("/bucket/o", "body");
  EXPECT_TRUE(server_.Stop());
  EXPECT_THAT(server_.GetLog() + server_.GetErrors() + server_.GetReadyLine(),
              AllOf(Not(HasSubstr("ss@word")), Not(HasSubstr("ss%40word"))));
  EXPECT_EQ(Tansy::Tests::ReadFile(server_.Data("tansyd.toml")).find("word"), std::string::npos);
}

TEST_F(PostgresTest, APasswordMayBeInTheEnvironmentAFileOrTheSettings) {
  MakeLockedDatabase();
  ExpectFailure(With(LockedUrl("")), "no password supplied");
  ExpectFailure(With(LockedUrl("wrong")), "password authentication failed for user \"locked\"");
  EXPECT_THAT(server_.GetErrors(), Not(HasSubstr("wrong")));
  Launch launch = With(LockedUrl(""));
  launch.environment["PGPASSWORD"] = CPostgresServer::kPassword;
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_TRUE(server_.Stop());
  launch = With(LockedUrl(""));
  launch.environment["PGPASSFILE"] = temp_.Write("passwords", "*:*:*:locked:pa\\:ss@word\n");
  std::filesystem::permissions(temp_.Path("passwords"), std::filesystem::perms(0600));
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_TRUE(server_.Stop());
  launch = Launch();
  launch.arguments = {"--config", temp_.Write("settings.toml", "database = \"" + LockedUrl("pa%3Ass%40word") + "\"\n")};
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_TRUE(server_.Stop());
}

TEST_F(PostgresTest, WhatIsMissingIsSaidInOneLine) {
  const std::string name = "database postgresql://tansy@" + database_.GetHost() + "/tansy";
  database_.Run("ALTER DATABASE tansy OWNER TO postgres");
  ExpectFailure(OnServer(), "permission denied for database tansy");
  database_.Run("ALTER DATABASE tansy OWNER TO tansy");
  database_.Run("CREATE SCHEMA platform AUTHORIZATION tansy; CREATE TABLE platform.songs (title text)");
  ExpectFailure(OnServer(), name + " is another program's");
  database_.Run("DROP SCHEMA platform CASCADE");
  ASSERT_TRUE(server_.Start(OnServer()));
  EXPECT_TRUE(server_.Stop());
  database_.Run("INSERT INTO platform.schema_version VALUES (4711, 'later', '')");
  ExpectFailure(OnServer(), name + " has schema version 4711, made by a newer tansyd");
  database_.Run(
      "DELETE FROM platform.schema_version WHERE version = 4711; ALTER TABLE platform.local_bucket RENAME TO x");
  ExpectFailure(OnServer(), "cannot be read");
  ExpectFailure(With("postgresql://tansy@%2Fnowhere/tansy"), "/nowhere/.s.PGSQL.5432");
  std::string url = database_.Url();
  ExpectFailure(With(url.replace(url.rfind("/tansy"), 6, "/none")), "database \"none\" does not exist");
}

TEST_F(PostgresTest, ASecondTansydOnTheDatabaseIsRefused) {
  ASSERT_TRUE(server_.Start(OnServer()));
  CTansyd second(temp_.GetPath(), "second");
  const Ended ended = second.RunToEnd(OnServer());
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("is in use by another program that writes to it"));
  MakeBucket("still-works");
}

TEST_F(PostgresTest, AnotherStoreIsNotTaken) {
  ASSERT_TRUE(server_.Start(OnServer()));
  MakeBucket("bucket");
  Put("/bucket/o", "body");
  EXPECT_TRUE(server_.Stop());
  std::filesystem::rename(server_.Data("objects"), temp_.Path("away"));
  ExpectFailure(OnServer(), "is its disk mounted?");
}

TEST_F(PostgresTest, ACheckComparesRowsAndBytesBesideARunningServerAndAfterIt) {
  ASSERT_TRUE(server_.Start(OnServer()));
  MakeBucket("bucket");
  Put("/bucket/o", "body");
  Put("/bucket/large", RandomBytes(200000, 1));
  CTansyd check(temp_.GetPath());
  Launch launch = OnServer({"--check"});
  launch.with_ports = false;
  Ended ended = check.RunToEnd(launch);
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("check: 2 rows, 2 stored files, 0 orphans"));
  launch.arguments.push_back("--repair");
  ended = check.RunToEnd(launch);
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
  EXPECT_TRUE(server_.Stop());
  database_.Run(
      "INSERT INTO platform.local_object (id, name, bucket_name, url, size) "
      "VALUES (4711, 'lost', 'bucket', 'fs01aa-bb-0123456789abcdef0123456789abcdef.d', 1)");
  ended = check.RunToEnd(launch);
  EXPECT_EQ(ended.code, 3) << ended.out << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("missing /bucket/lost"));
}

// Reads are answered from memory and the folder; a write waits a while for the database, and is told the truth.
TEST_F(PostgresTest, ReadsGoOnAndWritesWaitWhileTheDatabaseIsStartedAgain) {
  ASSERT_TRUE(server_.Start(OnServer()));
  MakeBucket("bucket");
  Put("/bucket/o", "before");
  database_.Crash();
  EXPECT_EQ(Get("/bucket/o"), "before");
  std::string outcome;
  std::thread writer([&] { outcome = Outcome(Send("PUT", "/bucket/o", "after")); });
  EXPECT_EQ(Get("/bucket/o"), "before");
  database_.Start();
  writer.join();
  EXPECT_EQ(outcome, "200") << server_.GetLog();
  EXPECT_EQ(Get("/bucket/o"), "after");
  EXPECT_EQ(database_.Rows("SELECT size FROM platform.local_object"), std::vector<std::string>{"5"});
}

TEST_F(PostgresTest, WithoutADatabaseWritesFailAndAreNotSeenLater) {
  ASSERT_TRUE(server_.Start(OnServer()));
  MakeBucket("bucket");
  Put("/bucket/o", "before");
  database_.Crash();
  EXPECT_EQ(Send("PUT", "/bucket/o", "after").status, 500);
  EXPECT_EQ(Send("PUT", "/bucket/new", "after").status, 500);
  EXPECT_EQ(Get("/bucket/o"), "before");
  database_.Start();
  EXPECT_TRUE(WaitUntil([this] { return Send("PUT", "/bucket/later", "later").status == 200; })) << server_.GetLog();
  EXPECT_EQ(Get("/bucket/o"), "before");
  EXPECT_EQ(Outcome(Send("GET", "/bucket/new")), "404 NoSuchKey");
  EXPECT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(OnServer()));
  EXPECT_EQ(Get("/bucket/o"), "before");
  EXPECT_EQ(Outcome(Send("GET", "/bucket/new")), "404 NoSuchKey");
  EXPECT_EQ(Get("/bucket/later"), "later");
}

TEST_F(PostgresTest, WithoutADatabaseItIsNotReadyUntilThereIsOneAgain) {
  Launch launch = OnServer();
  launch.with_admin = true;
  ASSERT_TRUE(server_.Start(launch));
  const auto ready = [this] { return Call(server_.GetAdminPort(), {"GET", "/health/ready", {}, ""}); };
  EXPECT_EQ(ready().status, 200);
  database_.Crash();
  ASSERT_TRUE(WaitUntil([&] { return ready().status == 503; }));
  EXPECT_THAT(ready().body,
              AllOf(HasSubstr("\"database\":\"the catalogue cannot be read"), HasSubstr("\"storage\":\"well\"")));
  EXPECT_EQ(Call(server_.GetAdminPort(), {"GET", "/health/live", {}, ""}).status, 200) << "it needs no restart";
  EXPECT_THAT(Call(server_.GetAdminPort(), {"GET", "/metrics", {}, ""}).body,
              HasSubstr("tansy_up{part=\"database\"} 0\n"));
  database_.Start();
  EXPECT_TRUE(WaitUntil([&] { return ready().status == 200; })) << ready().body;
}

TEST_F(PostgresTest, AFrozenDatabaseHoldsUpNoReader) {
  ASSERT_TRUE(server_.Start(OnServer()));
  MakeBucket("bucket");
  Put("/bucket/o", "before");
  database_.Freeze();
  std::string outcome;
  std::atomic<bool> is_answered{false};
  std::thread writer([&] {
    outcome = Outcome(Send("PUT", "/bucket/o", "after"));
    is_answered = true;
  });
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(Get("/bucket/o"), "before");
  }
  EXPECT_FALSE(is_answered);
  database_.Thaw();
  writer.join();
  EXPECT_EQ(outcome, "200") << server_.GetLog();
  EXPECT_EQ(Get("/bucket/o"), "after");
}

// Memory and database agree, whatever connection ends and whenever.
TEST_F(PostgresTest, WhatClientsAreToldIsTrueWhileConnectionsEnd) {
  ASSERT_TRUE(server_.Start(OnServer()));
  MakeBucket("bucket");
  std::atomic<bool> stop{false};
  std::atomic<int> answered{0};
  std::vector<std::string> expected(4);
  std::vector<std::thread> writers;
  for (std::size_t writer = 0; writer < expected.size(); ++writer) {
    writers.emplace_back([&, writer] {
      const std::string target = "/bucket/" + std::to_string(writer);
      for (int i = 0; !stop; ++i) {
        const std::string body = std::to_string(writer) + " wrote " + std::to_string(i);
        if (Send("PUT", target, body).status == 200) {
          expected[writer] = body;
        }
        ++answered;
      }
    });
  }
  for (int round = 0; round < 15; ++round) {
    const int before = answered;
    WaitUntil([&] { return answered >= before + 10; });
    database_.EndConnections();
  }
  stop = true;
  for (std::thread& writer : writers) {
    writer.join();
  }
  for (int start = 0; start < 2; ++start) {
    for (std::size_t writer = 0; writer < expected.size(); ++writer) {
      EXPECT_EQ(Get("/bucket/" + std::to_string(writer)), expected[writer]) << "start " << start;
    }
    EXPECT_TRUE(server_.Stop());
    ASSERT_TRUE(start == 1 || server_.Start(OnServer()));
  }
}

}  // namespace
}  // namespace system_tests
