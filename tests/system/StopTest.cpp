// How tansyd ends when something would keep it: work in the background, clients, or a start that does not get on.
#include <signal.h>
#include <sqlite3.h>

#include <filesystem>

#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::HasSubstr;

class StopTest : public TansydTest {
 protected:
  // Makes the data folder, so that there is a catalogue to be locked.
  void StartOnce() {
    ASSERT_TRUE(server_.Start());
    ASSERT_TRUE(server_.Stop());
  }
  bool IsListening() { return CConnection::Open(server_.GetObjectPort()) != nullptr; }
  // Sends the head of a request whose body never comes, so that the server has to wait for it.
  std::unique_ptr<CConnection> Stall() {
    auto connection = CConnection::Open(server_.GetObjectPort());
    const Request upload = Signed({"PUT", "/b/stalled", {{"Content-Length", "50000000"}}, ""});
    EXPECT_TRUE(connection->Send(Serialize(upload, server_.GetObjectPort())));
    EXPECT_TRUE(connection->Send(std::string(11000000, 'x')));
    return connection;
  }
};

// Keeps everybody else from writing to the catalogue.
class CCatalogueLock {
 public:
  explicit CCatalogueLock(const std::string& path) {
    EXPECT_EQ(sqlite3_open(path.c_str(), &database_), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  }
  ~CCatalogueLock() { sqlite3_close(database_); }
  CCatalogueLock(const CCatalogueLock&) = delete;
  CCatalogueLock& operator=(const CCatalogueLock&) = delete;

 private:
  sqlite3* database_ = nullptr;
};

TEST_F(StopTest, ListenersCloseAtOnceWhateverIsGoingOn) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  const auto stalled = Stall();
  server_.Signal(SIGTERM);
  EXPECT_TRUE(WaitUntil([this] { return !IsListening(); }));
  EXPECT_TRUE(server_.IsRunning()) << "the request that is under way has some seconds";
  EXPECT_TRUE(WaitUntil([this] { return !std::filesystem::exists(server_.Data("listening.toml")); }));
  EXPECT_EQ(server_.WaitForEnd().code, 0);
}

TEST_F(StopTest, HousekeepingKeepsNobody) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  Put("/b/o", "bytes");
  ASSERT_TRUE(server_.Stop());
  // Housekeeping would take minutes for all these entries, because it looks for each file, and none is there.
  Query(server_.Data("catalogue.db"),
        "WITH RECURSIVE number(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM number WHERE n < 300000) "
        "INSERT INTO released_bytes (url, bucket_name, object_name, released_at) "
        "SELECT printf('fs01ab-cd-%032x.d', n), 'b', 'gone', 0 FROM number");
  const std::string rows = "SELECT COUNT(*) FROM released_bytes";
  Launch launch;
  launch.arguments = {"--keep-failed", "1"};
  ASSERT_TRUE(server_.Start(launch));
  ASSERT_TRUE(WaitUntil([&] {
    return Query(server_.Data("catalogue.db"), rows) != std::vector<std::string>{"300000"};
  })) << "it is at work";
  server_.Signal(SIGTERM);
  EXPECT_TRUE(WaitUntil([this] { return !IsListening(); }));
  EXPECT_EQ(server_.WaitForEnd().code, 0) << "it ended by itself, with nothing cut off";
  EXPECT_NE(Query(server_.Data("catalogue.db"), rows), std::vector<std::string>{"0"}) << "it was not waited for";
}

TEST_F(StopTest, ASecondSignalWaitsForNobody) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  const auto stalled = Stall();
  server_.Signal(SIGTERM);
  ASSERT_TRUE(WaitUntil([this] { return !IsListening(); }));
  server_.Signal(SIGTERM);
  EXPECT_EQ(server_.WaitForEnd().code, 1) << "0 would be a stop that took its time";
  EXPECT_THAT(server_.GetErrors(), HasSubstr("tansyd: a second signal came, what still ran was cut off"));
  EXPECT_THAT(server_.GetLog(), HasSubstr("a second signal came"));
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Outcome(Send("GET", "/b?property")), "200");
}

// Starts with a log that goes nowhere, because nobody reads standard error.
class StuckLogTest : public StopTest {
 protected:
  void SetUp() override {
    Launch launch;
    launch.with_data = false;  // which would bring a log file
    launch.arguments = {"--data", server_.Data(), "--log-level", "2"};
    launch.stuck_errors = true;
    ASSERT_TRUE(server_.Start(launch));
    MakeBucket("b");
  }
};

TEST_F(StuckLogTest, KeepsNoStopWaiting) {
  server_.Signal(SIGHUP);
  EXPECT_EQ(Outcome(Send("GET", "/b?property")), "200");
  EXPECT_TRUE(server_.Stop());
}

TEST_F(StuckLogTest, KeepsNoSecondSignalWaiting) {
  const auto stalled = Stall();
  server_.Signal(SIGTERM);
  ASSERT_TRUE(WaitUntil([this] { return !IsListening(); }));
  server_.Signal(SIGTERM);
  EXPECT_EQ(server_.WaitForEnd().code, 1);
}

TEST_F(StopTest, AStartThatWaitsForItsDatabaseCanBeStopped) {
  StartOnce();
  for (const int signal : {SIGTERM, SIGINT}) {
    std::filesystem::remove(temp_.Path("data.log"));
    const CCatalogueLock lock(server_.Data("catalogue.db"));
    server_.Begin({});
    // The log is opened right before the database.
    ASSERT_TRUE(WaitUntil([this] { return std::filesystem::exists(temp_.Path("data.log")); }));
    server_.Signal(signal);
    const Ended ended = server_.WaitForEnd();
    EXPECT_TRUE(ended.exited);
    EXPECT_EQ(ended.code, 0) << server_.GetErrors();
    EXPECT_THAT(server_.GetErrors(), HasSubstr("tansyd: stopped before it was ready"));
  }
  ASSERT_TRUE(server_.Start());
}

TEST_F(StopTest, ACheckCanBeInterruptedAndDoesNotPassForDone) {
  ASSERT_TRUE(server_.Start());
  server_.Signal(SIGSTOP);  // so that the check waits for its answer
  CTansyd checker(temp_.GetPath(), "checker");
  Launch check;
  check.arguments = {"--data", server_.Data(), "--check", "--repair"};
  check.with_data = check.with_ports = false;
  checker.Begin(check);
  EXPECT_TRUE(WaitUntil([this] { return std::filesystem::exists(server_.Data("check.request")); }));
  checker.Signal(SIGINT);
  EXPECT_EQ(checker.WaitForEnd().code, 1);
  EXPECT_THAT(checker.GetErrors(), HasSubstr("tansyd: stopped before the check was over"));
  server_.Signal(SIGCONT);
  EXPECT_TRUE(server_.Stop());
}

}  // namespace
}  // namespace system_tests
