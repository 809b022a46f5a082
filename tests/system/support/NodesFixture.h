// Several tansyd on one database and one storage. The storage is a folder or, with TANSY_TEST_STORAGE=rados, a pool.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_NODES_FIXTURE_H
#define TANSY_TESTS_SYSTEM_SUPPORT_NODES_FIXTURE_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fakes/CephCluster.h"
#include "fakes/PostgresServer.h"
#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {

using Clock = std::chrono::steady_clock;
// What is written to the clients: a read that begins so long after the answer to a write sees it on every node.
inline constexpr std::chrono::milliseconds kLag{1000};

class NodesFixture : public testing::Test {
 protected:
  NodesFixture() {
    if (!database_.IsRunning()) {
      database_.Start();
    }
    database_.Run("DROP SCHEMA IF EXISTS platform CASCADE");
    if (is_in_pool_) {
      Tansy::Tests::CCephCluster& cluster = Tansy::Tests::CCephCluster::Shared();
      storage_ = cluster.Url(cluster.NewNamespace());
    }
  }

  Launch As(const std::string& name, std::vector<std::string> more = {}) {
    Launch launch;
    launch.with_s3 = true;
    launch.with_admin = true;
    const auto url = urls_.find(name);
    launch.arguments = {"--database", url == urls_.end() ? database_.Url() : url->second, "--storage", storage_};
    if (!name.empty()) {
      launch.arguments.insert(launch.arguments.end(), {"--node-name", name});
    }
    launch.arguments.insert(launch.arguments.end(), more.begin(), more.end());
    return launch;
  }
  // Starts nodes a, b, c and so on.
  void StartNodes(std::size_t count, const std::vector<std::string>& more = {}) {
    for (std::size_t i = 0; i < count; ++i) {
      nodes_.push_back(std::make_unique<CTansyd>(temp_.GetPath(), "data-" + Name(i)));
      ASSERT_TRUE(nodes_[i]->Start(As(Name(i), more))) << nodes_[i]->GetErrors();
    }
  }
  static std::string Name(std::size_t node) { return std::string(1, static_cast<char>('a' + node)); }

  Reply Send(std::size_t node, const std::string& method, const std::string& target, const std::string& body = "") {
    return Call(nodes_[node]->GetObjectPort(), Signed({method, target, {}, body}));
  }
  Reply Health(std::size_t node) { return Call(nodes_[node]->GetAdminPort(), {"GET", "/health/ready", {}, ""}); }
  void MakeBucket(std::size_t node, const std::string& name) {
    EXPECT_EQ(Outcome(Send(node, "PUT", "/" + name, "<CreateBucketConfiguration/>")), "200") << Logs();
  }
  void Put(std::size_t node, const std::string& target, const std::string& body) {
    EXPECT_EQ(Outcome(Send(node, "PUT", target, body)), "200") << target << Logs();
  }
  // What an object holds at a node, or why it cannot be had.
  std::string At(std::size_t node, const std::string& target) {
    const Reply reply = Send(node, "GET", target);
    return reply.status == 200 && reply.is_whole ? reply.body : Outcome(reply);
  }
  // Reads at a node until it knows of a change that was answered just now, which the next read after the lag does.
  void ExpectSoon(std::size_t node, const std::string& target, const std::string& expected) {
    const Clock::time_point answered = Clock::now();
    for (;;) {
      const bool is_late = Clock::now() - answered >= kLag;
      const std::string there = At(node, target);
      if (is_late || there == expected) {
        EXPECT_EQ(there, expected) << target << " at node " << Name(node) << Logs();
        return;
      }
    }
  }
  // A request to the S3 door, by curl: status, head and body in one text.
  std::string SendS3(std::size_t node, const std::string& method, const std::string& target,
                     const std::vector<std::string>& headers = {}, const std::string& body = "") {
    const Keys keys;
    Invocation curl;
    curl.program = "/usr/bin/curl";
    curl.folder = temp_.GetPath();
    curl.arguments = {"-s",
                      "-i",
                      "-X",
                      method,
                      "--aws-sigv4",
                      "aws:amz:us-east-1:s3",
                      "--user",
                      keys.access_key + ":" + keys.secret_key,
                      "http://127.0.0.1:" + std::to_string(nodes_[node]->GetS3Port()) + target};
    curl.arguments.insert(curl.arguments.end(), {"-H", "x-amz-content-sha256: UNSIGNED-PAYLOAD"});
    for (const std::string& header : headers) {
      curl.arguments.insert(curl.arguments.end(), {"-H", header});
    }
    if (method == "PUT") {
      curl.arguments.insert(curl.arguments.end(), {"--data-binary", body});
    }
    return RunProgram(curl).out;
  }
  static std::string StatusOf(const std::string& answer) { return answer.substr(answer.find(' ') + 1, 3); }
  std::string Logs() const {
    std::string logs;
    for (const auto& node : nodes_) {
      logs += "\n" + node->GetLog().substr(node->GetLog().size() - std::min<std::size_t>(node->GetLog().size(), 4000));
    }
    return logs;
  }

  // How many objects have bytes in the storage.
  std::size_t CountStored() {
    if (!is_in_pool_) {
      return CountFiles(temp_.Path("shared/fs01"));
    }
    CTansyd check(temp_.GetPath(), "data-a");
    Launch launch = As("", {"--check"});
    launch.with_ports = false;
    const std::string sum = check.RunToEnd(launch).out;
    const std::size_t rows = sum.find(" rows, ");
    return rows == std::string::npos ? 0 : std::stoul(sum.substr(rows + 7));
  }

  Tansy::Tests::CPostgresServer& database_ = Tansy::Tests::CPostgresServer::Shared();
  Tansy::Tests::CTempFolder temp_;
  const bool is_in_pool_ = std::getenv("TANSY_TEST_STORAGE") != nullptr;
  std::string storage_ = "file:" + temp_.Path("shared");
  std::map<std::string, std::string> urls_;  // of nodes that do not reach the database directly
  std::vector<std::unique_ptr<CTansyd>> nodes_;
};

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_NODES_FIXTURE_H
