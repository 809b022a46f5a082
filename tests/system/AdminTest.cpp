// What an operator sees: health, figures, running requests, and the access log.
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>
#include <vector>

#include "support/OwnNetwork.h"
#include "support/Ports.h"
#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class AdminTest : public TansydTest {
 protected:
  bool StartWithAdmin(std::vector<std::string> arguments = {}) {
    Launch launch;
    launch.with_admin = true;
    launch.with_s3 = true;
    launch.arguments = std::move(arguments);
    return server_.Start(launch);
  }
  // Another server of this machine that is not told anything about its admin port.
  static Launch WithOwnPorts(const CTansyd& server) {
    Launch launch;
    launch.with_ports = false;
    launch.arguments = {"--object-port", std::to_string(server.GetObjectPort())};
    launch.arguments.insert(launch.arguments.end(), {"--picture-port", std::to_string(server.GetPicturePort())});
    for (const char* without : {"--object-https-port", "--picture-https-port", "--s3-port", "--s3-https-port"}) {
      launch.arguments.insert(launch.arguments.end(), {without, "0"});
    }
    return launch;
  }
  Reply Ask(const std::string& target, const std::string& method = "GET") const {
    return Call(server_.GetAdminPort(), {method, target, {}, ""});
  }
  // Asks until the answer has this text; the last answer.
  Reply AskUntil(const std::string& target, const std::string& text) const {
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
      const Reply reply = Ask(target);
      if (reply.body.find(text) != std::string::npos || std::chrono::steady_clock::now() > limit) {
        return reply;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  std::string AccessLog() const {
    std::ifstream file(temp_.GetPath() + "/access.log");
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::string AccessLogWith(const std::string& text) const {
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    std::string log;
    while ((log = AccessLog()).find(text) == std::string::npos && std::chrono::steady_clock::now() < limit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return log;
  }
};

TEST_F(AdminTest, SaysThatItLivesAndIsReady) {
  ASSERT_TRUE(StartWithAdmin());
  EXPECT_EQ(Ask("/health/live").status, 200);
  const Reply ready = Ask("/health/ready");
  EXPECT_EQ(ready.status, 200);
  EXPECT_EQ(ready.Header("Content-Type"), "application/json");
  EXPECT_EQ(ready.body,
            "{\"status\":\"ready\",\"parts\":{\"database\":\"well\",\"storage\":\"well\",\"space\":\"well\"}}\n");
  EXPECT_EQ(Ask("/health/ready", "HEAD").status, 200);
  EXPECT_THAT(server_.GetLog(), Not(HasSubstr(" error "))) << "nothing is wrong";
}

TEST_F(AdminTest, SaysThatTheDiskOfTheBytesIsNearlyFull) {
  Launch launch;
  launch.with_admin = true;
  launch.small_disk = "objects";
  launch.small_disk_bytes = std::uint64_t{32} << 20;
  if (!server_.Start(launch)) {
    ASSERT_TRUE(server_.IsSmallDiskMissing());
    GTEST_SKIP() << "this machine does not let a test mount a disk";
  }
  const Reply reply = AskUntil("/health/ready", "nearly full");
  EXPECT_EQ(reply.status, 503);
  EXPECT_THAT(reply.body, HasSubstr("MiB are left"));
}

TEST_F(AdminTest, CountsRequestsOfEachProtocol) {
  ASSERT_TRUE(StartWithAdmin());
  MakeBucket("b");
  Put("/b/k", "12345");
  EXPECT_EQ(Get("/b/k"), "12345");
  EXPECT_EQ(Send("GET", "/b/missing").status, 404);
  EXPECT_EQ(Call(server_.GetS3Port(), {"GET", "/", {}, ""}).status, 403);
  EXPECT_EQ(Call(server_.GetPicturePort(), {"GET", "/Quorvane/Version", {}, ""}).status, 403);
  const std::string text = AskUntil("/metrics", "service=\"picture\"").body;
  EXPECT_THAT(text, HasSubstr("tansy_requests_total{service=\"object\",operation=\"PutObject\",status=\"200\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("tansy_requests_total{service=\"object\",operation=\"GetObject\",status=\"200\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("tansy_requests_total{service=\"object\",operation=\"GetObject\",status=\"404\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("tansy_requests_total{service=\"s3\",operation=\"Other\",status=\"403\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("tansy_received_bytes_total{service=\"object\",operation=\"PutObject\"} 5\n"));
  EXPECT_THAT(text, HasSubstr("tansy_request_duration_seconds_count{service=\"object\",operation=\"PutObject\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("tansy_objects 1\n"));
  EXPECT_THAT(text, HasSubstr("tansy_buckets 1\n"));
  EXPECT_THAT(text, HasSubstr("tansy_up{part=\"storage\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("tansy_tasks_waiting 0\n"));
  const std::string idle = "tansy_workers{state=\"computing\"} 0\n";
  EXPECT_THAT(AskUntil("/metrics", idle).body, HasSubstr(idle)) << "soon after the last answer";
  EXPECT_THAT(AskUntil("/metrics", "tansy_sweeps_total 1\n").body, HasSubstr("tansy_swept_uploads_total 0\n"));
  EXPECT_THAT(text, HasSubstr("tansy_freed_bytes_total{kind=\"orphaned\"} 0\n"));
  EXPECT_THAT(text, HasSubstr("tansy_unreferenced{kind=\"replaced\"} "));
  EXPECT_THAT(text, Not(HasSubstr("tansy_certificate_end_time_seconds "))) << "this server has none";
}

TEST_F(AdminTest, ItsFiguresAreWhatPrometheusTakes) {
  ASSERT_TRUE(StartWithAdmin());
  MakeBucket("b");
  Invocation promtool;
  promtool.program = ScriptPath("promtool.sh");
  promtool.arguments = {"check", "metrics"};
  promtool.folder = temp_.GetPath();
  const Ended ended = RunProgram(promtool, AskUntil("/metrics", "CreateBucket").body);
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
}

TEST_F(AdminTest, EachFigureOfTheDashboardAndTheAlertsIsThere) {
  Launch launch;
  launch.with_admin = true;
  launch.with_https = true;
  ASSERT_TRUE(server_.Start(launch));
  MakeBucket("b");
  const std::string figures = AskUntil("/metrics", "CreateBucket").body;
  const std::regex name("tansy_[a-z_]+");
  for (const char* file : {"tansyd.rules.yml", "tansyd.dashboard.json"}) {
    std::ifstream stream(SourceFolder() + "/dist/" + file);
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    ASSERT_FALSE(text.empty()) << file;
    for (std::sregex_iterator found(text.begin(), text.end(), name), end; found != end; ++found) {
      EXPECT_THAT(figures, HasSubstr("\n" + found->str())) << file;
    }
  }
}

TEST_F(AdminTest, ShowsTheRequestsThatRun) {
  ASSERT_TRUE(StartWithAdmin());
  MakeBucket("b");
  const std::string body(std::size_t{20} << 20, 'x');
  const Request request = Signed({"PUT", "/b/large", {}, body});
  const std::string bytes = Serialize(request, server_.GetObjectPort());
  const auto connection = CConnection::Open(server_.GetObjectPort());
  ASSERT_NE(connection, nullptr);
  ASSERT_TRUE(connection->Send(std::string_view(bytes).substr(0, bytes.size() - 1)));
  const Reply reply = AskUntil("/debug/requests", "\"phase\":\"upload\"");
  EXPECT_THAT(reply.body, AllOf(HasSubstr("\"request\":\"PUT /b/large\""), HasSubstr("\"service\":\"object\""),
                                HasSubstr("\"operation\":\"PutObject\""), HasSubstr("\"peer\":\"127.0.0.1\"")));
  ASSERT_TRUE(connection->Send("x"));
  EXPECT_EQ(connection->Receive().status, 200);
  EXPECT_THAT(AskUntil("/debug/requests", "\"count\":1").body, HasSubstr("GET /debug/requests"));
}

// Each of the scrapers asks again at once, which is more than any of them does; objects come and go meanwhile.
TEST_F(AdminTest, ScrapersKeepNobodyFromObjects) {
  ASSERT_TRUE(StartWithAdmin());
  MakeBucket("b");
  std::atomic<bool> is_over{false};
  std::atomic<int> scraped{0};
  const auto scrape = [&] {
    const auto connection = CConnection::Open(server_.GetAdminPort());
    ASSERT_NE(connection, nullptr);
    const std::string bytes = Serialize({"GET", "/metrics", {}, ""}, server_.GetAdminPort());
    while (!is_over) {
      ASSERT_TRUE(connection->Send(bytes));
      const Reply reply = connection->Receive();
      ASSERT_EQ(reply.status, 200);
      ASSERT_THAT(reply.body, HasSubstr("\ntansy_build_info{"));
      ++scraped;
    }
  };
  std::vector<std::thread> scrapers;
  for (int i = 0; i < 8; ++i) {
    scrapers.emplace_back(scrape);
  }
  const std::string body = RandomBytes(100'000);
  int rounds = 0;
  while (rounds < 100 || (scraped < 1000 && !HasFailure())) {
    Put("/b/k" + std::to_string(rounds % 10), body);
    EXPECT_EQ(Get("/b/k" + std::to_string(rounds % 10)), body);
    ++rounds;
  }
  is_over = true;
  for (std::thread& scraper : scrapers) {
    scraper.join();
  }
  EXPECT_EQ(Ask("/health/ready").status, 200);
}

// Who opens the port to others without having HTTPS for the rest gets HTTPS there all the same.
TEST_F(AdminTest, AnOpenPortNeverSpeaksPlainHttp) {
  ASSERT_TRUE(StartWithAdmin({"--admin-listen", "0.0.0.0"}));
  for (const char* target : {"/health/live", "/metrics", "/console/"}) {
    const Reply reply = Call(server_.GetAdminPort(), {"GET", target, {}, ""});
    EXPECT_NE(reply.status, 200) << target;
    EXPECT_THAT(reply.body, Not(HasSubstr("tansy"))) << target;
    ConnectOptions tls;
    tls.tls = true;
    EXPECT_EQ(Call(server_.GetAdminPort(), {"GET", target, {}, ""}, tls).status, 200) << target;
  }
}

TEST_F(AdminTest, AnswersNothingElse) {
  ASSERT_TRUE(StartWithAdmin());
  EXPECT_EQ(Ask("/metrics/").status, 404);
  EXPECT_EQ(Ask("/consol").status, 404);
  EXPECT_EQ(Ask("/", "POST").status, 404);
  EXPECT_EQ(Ask("/metrics", "POST").status, 405);
  EXPECT_EQ(Ask("/metrics", "DELETE").status, 405);
  const std::string body(std::size_t{11} << 20, 'x');
  EXPECT_EQ(Call(server_.GetAdminPort(), {"PUT", "/metrics", {}, body}).status, 405);
  EXPECT_EQ(Ask("/health/live").status, 200);
}

TEST_F(AdminTest, AsksForTheKeysWhoeverDoesNotComeFromThisMachine) {
  bool has_adapter = true;
  const bool has_network = RunInOwnNetwork([&] {
    const auto adapter = CAdapter::Make("tansy1");
    has_adapter = adapter != nullptr && adapter->SetAddress("192.0.2.5");
    if (!has_adapter) {
      return;
    }
    ASSERT_TRUE(StartWithAdmin({"--admin-listen", "192.0.2.5"}));
    ConnectOptions plain;
    plain.address = "192.0.2.5";
    ConnectOptions tls = plain;
    tls.tls = true;
    const auto ask = [&](const std::string& target, const HeaderList& headers, const ConnectOptions& options) {
      return Call(server_.GetAdminPort(), {"GET", target, headers, ""}, options);
    };
    EXPECT_EQ(ask("/health/live", {}, tls).status, 200);
    const Reply refused = ask("/metrics", {}, tls);
    EXPECT_EQ(refused.status, 401);
    EXPECT_THAT(refused.Header("WWW-Authenticate"), HasSubstr("Basic"));
    EXPECT_THAT(refused.body, Not(HasSubstr("tansy_")));
    const Keys keys;
    const std::string right = "Basic " + Base64(keys.access_key + ":" + keys.secret_key);
    const std::string wrong = "Basic " + Base64(keys.access_key + ":" + keys.secret_key + "x");
    EXPECT_EQ(ask("/metrics", {{"Authorization", wrong}}, tls).status, 401);
    EXPECT_EQ(ask("/health/ready", {{"Authorization", wrong}}, tls).status, 401);
    EXPECT_EQ(ask("/metrics", {{"Authorization", right}}, tls).status, 200);
    EXPECT_NE(ask("/metrics", {{"Authorization", right}}, plain).status, 200) << "keys never go over plain HTTP";
    EXPECT_THAT(ask("/metrics", {{"Authorization", right}}, tls).body,
                HasSubstr("tansy_certificate_end_time_seconds "));
    EXPECT_EQ(CConnection::Open(server_.GetAdminPort()), nullptr) << "only where it was told to listen";
    EXPECT_TRUE(server_.Stop());
  });
  if (!has_network || !has_adapter) {
    GTEST_SKIP() << "this machine does not let a test have a network of its own";
  }
}

TEST_F(AdminTest, APortThatWasAskedForAndIsTakenEndsTheStart) {
  ASSERT_TRUE(StartWithAdmin());
  CTansyd second(temp_.GetPath(), "second");
  Launch launch = WithOwnPorts(second);
  launch.arguments.insert(launch.arguments.end(), {"--admin-port", std::to_string(server_.GetAdminPort())});
  const Ended ended = second.RunToEnd(launch);
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err,
              AllOf(HasSubstr("admin listener cannot be opened"), HasSubstr(std::to_string(server_.GetAdminPort()))));
}

TEST_F(AdminTest, TheUsualPortGivesWayWhereItWasNotAskedFor) {
  const CTakenPort taken(9703);  // when another program of this machine has it already, that is as good
  CTansyd second(temp_.GetPath(), "second");
  const Launch launch = WithOwnPorts(second);
  ASSERT_TRUE(second.Start(launch));
  EXPECT_TRUE(WaitUntil([&] {
    return second.GetLog().find("there is none, give admin-port a free port") != std::string::npos;
  })) << second.GetLog();
  std::ifstream listening(second.Data("listening.toml"));
  EXPECT_THAT(std::string(std::istreambuf_iterator<char>(listening), {}), HasSubstr("admin-port = 0\n"));
}

TEST_F(AdminTest, WritesALineForEachRequest) {
  const std::string file = temp_.GetPath() + "/access.log";
  ASSERT_TRUE(StartWithAdmin({"--access-log", file}));
  MakeBucket("b");
  const Reply stored = Send("PUT", "/b/k", "12345", {{"User-Agent", "tester/1"}});
  const std::string id = stored.Header("X-Request-Id");
  EXPECT_EQ(id.size(), 16U);
  const std::string log = AccessLogWith("id=" + id);
  EXPECT_THAT(log, HasSubstr("127.0.0.1 - - ["));
  EXPECT_THAT(log, HasSubstr("\"PUT /b/k HTTP/1.1\" 200 "));
  EXPECT_THAT(log, HasSubstr("\"tester/1\" id=" + id + " op=object.PutObject in=5 ms="));
  EXPECT_EQ(SendPlain("GET", "/b/k?token=abc:def:ghi").status, 403);
  EXPECT_THAT(AccessLogWith("GET /b/k"), AllOf(HasSubstr("/b/k?token=... HTTP/1.1\" 403"), Not(HasSubstr("abc:def"))));
}

TEST_F(AdminTest, OpensItsAccessLogAgainAfterItWasMovedAway) {
  const std::string file = temp_.GetPath() + "/access.log";
  ASSERT_TRUE(StartWithAdmin({"--access-log", file, "--access-log-format", "json"}));
  MakeBucket("first");
  EXPECT_THAT(AccessLogWith("PUT /first"), HasSubstr("\"status\":200"));
  std::filesystem::rename(file, file + ".1");
  server_.Signal(SIGHUP);
  const auto limit = std::chrono::steady_clock::now() + kPatience;
  while (!std::filesystem::exists(file) && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  MakeBucket("second");
  EXPECT_THAT(AccessLogWith("PUT /second"), Not(HasSubstr("PUT /first")));
}

}  // namespace
}  // namespace system_tests
