// Tests several tansyd on one database and one storage: what one of them has answered, the others know, whatever ends,
// stands still or is started again. What goes wrong at a chosen moment is in NodesFaultsTest.cpp.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "support/NodesFixture.h"
#include "support/S3Sign.h"

namespace system_tests {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;

class NodesTest : public NodesFixture {};

TEST_F(NodesTest, ANewObjectIsFoundAtOnceOnEveryNode) {
  StartNodes(3);
  MakeBucket(0, "bucket");
  for (int i = 0; i < 60; ++i) {
    const std::string target = "/bucket/" + std::to_string(i);
    Put(i % 3, target, target);
    EXPECT_EQ(At((i + 1) % 3, target), target);
    EXPECT_EQ(At((i + 2) % 3, target), target);
  }
  EXPECT_EQ(At(1, "/bucket/none"), "404 NoSuchKey");
  EXPECT_EQ(At(1, "/none/none"), "404 NoSuchBucket");
}

TEST_F(NodesTest, WhatIsOverwrittenOrRemovedIsSoEverywhereWithinTheLag) {
  StartNodes(3, {"--keep-failed", "1"});
  MakeBucket(0, "bucket");
  const std::string large = RandomBytes(300000, 7);
  for (int i = 0; i < 20; ++i) {
    const std::string body = "version " + std::to_string(i) + (i % 5 == 0 ? large : "");
    Put(i % 3, "/bucket/o", body);
    EXPECT_EQ(At(i % 3, "/bucket/o"), body);
    ExpectSoon((i + 1) % 3, "/bucket/o", body);
    ExpectSoon((i + 2) % 3, "/bucket/o", body);
  }
  for (const char* query : {"", "?deletefile"}) {
    Put(0, "/bucket/gone", "there");
    EXPECT_EQ(At(1, "/bucket/gone"), "there");
    EXPECT_EQ(Outcome(Send(2, "DELETE", std::string("/bucket/gone") + query)), "200");
    EXPECT_EQ(At(2, "/bucket/gone"), "404 NoSuchKey");
    ExpectSoon(0, "/bucket/gone", "404 NoSuchKey");
    ExpectSoon(1, "/bucket/gone", "404 NoSuchKey");
  }
  // The bytes that nobody needs are given back, by one of the nodes.
  EXPECT_TRUE(WaitUntil([this] { return CountStored() <= 2; }));
  EXPECT_EQ(At(0, "/bucket/o"), "version 19");
}

TEST_F(NodesTest, ABucketIsMadeOnceAndUsedEverywhereAtOnce) {
  StartNodes(2);
  for (int i = 0; i < 10; ++i) {
    const std::string bucket = "/bucket-" + std::to_string(i);
    std::string outcomes[2];
    std::thread other([&] { outcomes[1] = Outcome(Send(1, "PUT", bucket, "<CreateBucketConfiguration/>")); });
    outcomes[0] = Outcome(Send(0, "PUT", bucket, "<CreateBucketConfiguration/>"));
    other.join();
    EXPECT_THAT(outcomes[0] + " " + outcomes[1], AnyOf("200 409 BucketAlreadyExists", "409 BucketAlreadyExists 200"));
    Put(i % 2, bucket + "/o", "body");
    EXPECT_EQ(At((i + 1) % 2, bucket + "/o"), "body");
  }
  EXPECT_EQ(database_.Rows("SELECT count(*), count(DISTINCT name) FROM platform.local_bucket"),
            std::vector<std::string>{"10|10"});
}

// Its objects are named by its name, which another bucket may have by then.
TEST_F(NodesTest, ABucketThatIsGoneIsNotRemovedOnceMore) {
  StartNodes(1);
  database_.Run(
      "DO 'BEGIN PERFORM set_config(''tansy.node'', ''a'', true); "
      "BEGIN DELETE FROM platform.local_bucket WHERE id = 999999; EXCEPTION WHEN raise_exception THEN RETURN; END; "
      "RAISE ''the removal was not refused''; END'");
  MakeBucket(0, "bucket");
  EXPECT_EQ(StatusOf(SendS3(0, "DELETE", "/bucket")), "204");
}

TEST_F(NodesTest, OfTwoWritersOfOneKeyOneWinsAndAllAgree) {
  StartNodes(3);
  MakeBucket(0, "bucket");
  std::vector<std::thread> writers;
  for (std::size_t node = 0; node < 3; ++node) {
    writers.emplace_back([this, node] {
      for (int i = 0; i < 40; ++i) {
        const std::string target = "/bucket/" + std::to_string(i % 4);
        if (i % 7 == 3) {
          EXPECT_THAT(Outcome(Send(node, "DELETE", target)), AnyOf("200", "404 NoSuchKey"));
        } else {
          Put(node, target, Name(node) + std::to_string(i));
        }
      }
    });
  }
  for (std::thread& writer : writers) {
    writer.join();
  }
  std::this_thread::sleep_for(kLag);  // after it, all see the same
  for (int i = 0; i < 4; ++i) {
    const std::string target = "/bucket/" + std::to_string(i);
    const std::string first = At(0, target);
    EXPECT_EQ(At(1, target), first);
    EXPECT_EQ(At(2, target), first);
    const std::vector<std::string> rows = database_.Rows("SELECT size FROM platform.local_object WHERE name = '" +
                                                         std::to_string(i) + "' AND bucket_name = 'bucket'");
    EXPECT_EQ(rows, first == "404 NoSuchKey" ? std::vector<std::string>{}
                                             : std::vector<std::string>{std::to_string(first.size())});
  }
}

// What one node's object protocol has just stored under a spelling of its own is the object of that key at all nodes.
TEST_F(NodesTest, AKeyHasOneObjectAtAllNodes) {
  StartNodes(2);
  MakeBucket(0, "bucket");
  const auto names = [this] { return database_.Rows("SELECT name FROM platform.local_object ORDER BY name"); };
  Put(0, "/bucket/r(1)", "by name");
  EXPECT_EQ(StatusOf(SendS3(1, "PUT", "/bucket/r%281%29", {"If-None-Match: *"}, "new")), "412");
  EXPECT_EQ(StatusOf(SendS3(1, "PUT", "/bucket/r%281%29", {}, "by S3")), "200") << Logs();
  EXPECT_EQ(names(), std::vector<std::string>{"r(1)"});
  ExpectSoon(0, "/bucket/r(1)", "by S3");
  Put(0, "/bucket/r%281%29", "second");
  Put(0, "/bucket/a%2fb", "third");
  // A removal that is about other bytes removes nothing, also where they have just been replaced.
  const std::string old_tag = "\"a51e47f646375ab6bf5dd2c42d3e6181\"";
  EXPECT_EQ(StatusOf(SendS3(1, "DELETE", "/bucket/r%281%29", {"If-Match: " + old_tag})), "412") << Logs();
  EXPECT_EQ(StatusOf(SendS3(1, "DELETE", "/bucket/r%281%29")), "204");
  EXPECT_EQ(StatusOf(SendS3(1, "DELETE", "/bucket/a/b")), "204");
  EXPECT_EQ(names(), std::vector<std::string>{}) << Logs();
}

TEST_F(NodesTest, TheS3DoorsOfAllNodesAgree) {
  StartNodes(2);
  EXPECT_EQ(StatusOf(SendS3(0, "PUT", "/bucket")), "200") << Logs();
  for (int i = 0; i < 5; ++i) {
    const std::string target = "/bucket/o" + std::to_string(i);
    EXPECT_EQ(StatusOf(SendS3(i % 2, "PUT", target, {"Content-Type: kind/" + std::to_string(i)}, "body")), "200");
    const std::size_t other = static_cast<std::size_t>(i + 1) % 2;
    EXPECT_THAT(SendS3(other, "GET", "/bucket"), HasSubstr("<Key>o" + std::to_string(i) + "</Key>"));
    EXPECT_THAT(SendS3(other, "GET", target), HasSubstr("kind/" + std::to_string(i)));
  }
  // Other bytes have other attributes, also where the first ones were known.
  EXPECT_EQ(StatusOf(SendS3(0, "PUT", "/bucket/o0", {"Content-Type: kind/new"}, "other")), "200");
  std::this_thread::sleep_for(kLag);
  EXPECT_THAT(SendS3(1, "GET", "/bucket/o0"), AllOf(HasSubstr("kind/new"), HasSubstr("\r\n\r\nother")));
  // What the other door stored gets its entity tag once, and everywhere.
  Put(0, "/bucket/plain", "hello");
  for (const std::size_t node : {1U, 0U}) {
    EXPECT_THAT(SendS3(node, "GET", "/bucket/plain"), HasSubstr("5d41402abc4b2a76b9719d911017c592"));
  }
  EXPECT_EQ(database_.Rows("SELECT count(*) FROM platform.local_object_attributes a JOIN platform.local_object o ON "
                           "o.id = a.object_id WHERE o.name = 'plain'"),
            std::vector<std::string>{"1"});
  // Of two who store under a condition one is refused.
  for (int i = 0; i < 8; ++i) {
    const std::string target = "/bucket/new" + std::to_string(i);
    std::string answers[2];
    std::thread first([&] { answers[0] = StatusOf(SendS3(0, "PUT", target, {"If-None-Match: *"}, "0")); });
    answers[1] = StatusOf(SendS3(1, "PUT", target, {"If-None-Match: *"}, "1"));
    first.join();
    EXPECT_THAT(answers[0] + answers[1], AnyOf("200412", "412200"));
    EXPECT_EQ(At(0, target), answers[0] == "200" ? "0" : "1");
  }
  // A bucket that is empty for one node only is not removed.
  EXPECT_EQ(StatusOf(SendS3(0, "PUT", "/full")), "200");
  Put(1, "/full/o", "body");
  EXPECT_EQ(StatusOf(SendS3(0, "DELETE", "/full")), "409");
  EXPECT_EQ(StatusOf(SendS3(1, "DELETE", "/full/o")), "204");
  EXPECT_EQ(StatusOf(SendS3(0, "DELETE", "/full")), "204") << Logs();
  EXPECT_THAT(Outcome(Send(1, "PUT", "/full/o", "body")), AnyOf("500 ServerInternalError", "404 NoSuchBucket"));
  EXPECT_EQ(At(1, "/full/o"), "404 NoSuchBucket");
  database_.Freeze();
  EXPECT_TRUE(WaitUntil([this] { return StatusOf(SendS3(1, "GET", "/bucket/o0")) == "503"; }));
  database_.Thaw();
}

// Each node has the seal of the keys in a file of its own, which the operator copies.
TEST_F(NodesTest, KeysOfOthersCountOnAllNodesSoon) {
  for (std::size_t i = 0; i < 2; ++i) {
    nodes_.push_back(std::make_unique<CTansyd>(temp_.GetPath(), "data-" + Name(i)));
    Launch launch = As(Name(i));
    launch.with_admin = true;
    ASSERT_TRUE(nodes_[i]->Start(launch)) << nodes_[i]->GetErrors();
  }
  MakeBucket(0, "bucket");
  Put(0, "/bucket/k", "meow");
  const auto ask = [this](std::size_t node, const std::string& method, const std::string& path, const std::string& body,
                          const std::string& digest) {
    const std::uint16_t port = nodes_[node]->GetAdminPort();
    return Call(port, S3Signed({method, path, {}, body}, port, {digest, 0, {}, "tansy-admin"}));
  };
  const Reply made = ask(0, "POST", "/admin/keys", R"({"name":"guest"})",
                         "41d538fc3d8bdd3149c7d586988d121b32b9f2cdaed179362ae2c7efa36f3a0c");
  ASSERT_EQ(made.status, 200) << made.body;
  const auto value = [&made](const std::string& name) {
    const std::size_t at = made.body.find("\"" + name + "\":\"") + name.size() + 4;
    return made.body.substr(at, made.body.find('"', at) - at);
  };
  const Keys guest = {value("access_key"), value("secret_key")};
  const auto read = [&](std::size_t node) {
    const std::uint16_t port = nodes_[node]->GetS3Port();
    S3Claim claim;
    claim.keys = guest;
    return Call(port, S3Signed({"GET", "/bucket/k", {}, ""}, port, claim)).status;
  };
  EXPECT_EQ(read(0), 200);
  EXPECT_EQ(read(1), 403);
  std::filesystem::copy_file(nodes_[0]->Data("key-seal"), nodes_[1]->Data("key-seal"));
  EXPECT_TRUE(WaitUntil([&] { return read(1) == 200; })) << Logs();
  const std::string nothing = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
  EXPECT_EQ(ask(1, "DELETE", "/admin/keys/guest", "", nothing).status, 200);
  EXPECT_EQ(read(1), 403);
  EXPECT_TRUE(WaitUntil([&] { return read(0) == 403; })) << Logs();
}

TEST_F(NodesTest, AnUploadInPartsGoesOnWhereItBegan) {
  StartNodes(2);
  MakeBucket(0, "bucket");
  const std::string id = XmlValue(Send(0, "POST", "/bucket/parts?uploads").body, "UploadId");
  ASSERT_NE(id, "");
  const std::string target = "/bucket/parts?upload_id=" + id;
  const std::string list =
      "<CompleteMultipartUpload><TotalPartNum>1</TotalPartNum><Part><PartNumber>1</PartNumber>"
      "<PartSize>4</PartSize></Part></CompleteMultipartUpload>";
  EXPECT_EQ(Outcome(Send(1, "POST", target + "&part_number=1", "part")), "421 UploadElsewhere");
  EXPECT_EQ(Outcome(Send(1, "POST", target, list)), "421 UploadElsewhere");
  EXPECT_EQ(Outcome(Send(1, "GET", target)), "421 UploadElsewhere");
  EXPECT_EQ(Outcome(Send(0, "POST", target + "&part_number=1", "part")), "200") << Logs();
  // It goes on after a restart of its node, and only there.
  EXPECT_TRUE(nodes_[0]->Stop());
  ASSERT_TRUE(nodes_[0]->Start(As("a")));
  EXPECT_EQ(Outcome(Send(1, "POST", target, list)), "421 UploadElsewhere");
  EXPECT_EQ(Outcome(Send(0, "POST", target, list)), "200") << Logs();
  EXPECT_EQ(At(1, "/bucket/parts"), "part");
}

TEST_F(NodesTest, NamesAreTakenOnceAndATansydWithoutANameIsAlone) {
  StartNodes(1);
  CTansyd same(temp_.GetPath(), "same");
  Ended ended = same.RunToEnd(As("a"));
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("node a runs already ("));
  EXPECT_THAT(ended.err, HasSubstr("data-a), or did so less than ten seconds ago: every node needs a name of its own"));
  CTansyd alone(temp_.GetPath(), "alone");
  ended = alone.RunToEnd(As(""));
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("in use by another"));
  MakeBucket(0, "still-works");
  // A name that was given back is free at once, and after a crash on the same folder too.
  nodes_[0]->Kill();
  ASSERT_TRUE(nodes_[0]->Start(As("a")));
  EXPECT_TRUE(nodes_[0]->Stop());
  ASSERT_TRUE(same.Start(As("a")));
  EXPECT_TRUE(same.Stop());
  ASSERT_TRUE(alone.Start(As("")));
  ended = same.RunToEnd(As("a"));
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("in use by another"));
}

TEST_F(NodesTest, NodesThatStartTogetherPrepareTheDatabaseOnce) {
  for (std::size_t i = 0; i < 3; ++i) {
    nodes_.push_back(std::make_unique<CTansyd>(temp_.GetPath(), "data-" + Name(i)));
  }
  for (std::size_t i = 0; i < 3; ++i) {
    nodes_[i]->Begin(As(Name(i)));
  }
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(nodes_[i]->WaitForReadyOrEnd()) << nodes_[i]->GetErrors();
  }
  MakeBucket(0, "bucket");
  Put(1, "/bucket/o", "body");
  EXPECT_EQ(At(2, "/bucket/o"), "body");
}

// Writers whose every answer is remembered.
class CLoad {
 public:
  using Send = std::function<Reply(std::size_t node, const std::string& method, const std::string& target,
                                   const std::string& body)>;
  CLoad(Send send, std::size_t nodes) : send_(std::move(send)) {
    for (std::size_t node = 0; node < nodes; ++node) {
      writers_.emplace_back([this, node] { Write(node); });
    }
  }
  ~CLoad() { End(); }

  void WaitForMore(int count) {
    const int before = answered_;
    EXPECT_TRUE(WaitUntil([&] { return answered_ >= before + count; }));
  }
  void End() {
    stop_ = true;
    for (std::thread& writer : writers_) {
      writer.join();
    }
    writers_.clear();
  }
  // Targets and what was acknowledged for them last; "" when the last answer was none or an error, so that nobody can
  // know.
  std::map<std::string, std::string> Acknowledged() const { return acknowledged_; }

 private:
  void Write(std::size_t node) {
    for (int i = 0; !stop_; ++i) {
      // Some keys are new, some are written again and again.
      const std::string target =
          "/bucket/" + std::string(1, static_cast<char>('a' + node)) + std::to_string(i % 3 == 0 ? i : i % 2);
      const std::string body = target + " wrote " + std::to_string(i);
      const int status = send_(node, "PUT", target, body).status;
      const bool is_done = status == 200;
      answered_ += is_done ? 1 : 0;
      if (status == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the node is not there
      }
      const std::lock_guard<std::mutex> lock(mutex_);
      acknowledged_[target] = is_done ? body : "";
    }
  }

  const Send send_;
  std::atomic<bool> stop_{false};
  std::atomic<int> answered_{0};
  std::mutex mutex_;
  std::map<std::string, std::string> acknowledged_;
  std::vector<std::thread> writers_;
};

class NodesUnderLoadTest : public NodesFixture {
 protected:
  std::unique_ptr<CLoad> MakeLoad(std::size_t nodes) {
    return std::make_unique<CLoad>([this](std::size_t node, const std::string& method, const std::string& target,
                                          const std::string& body) { return Send(node, method, target, body); },
                                   nodes);
  }
  // All nodes have what was acknowledged, and agree on the rest.
  void ExpectAcknowledged(const CLoad& load, const std::vector<std::size_t>& nodes) {
    std::this_thread::sleep_for(kLag);
    std::size_t known = 0;
    for (const auto& [target, body] : load.Acknowledged()) {
      const std::string first = At(nodes.front(), target);
      for (const std::size_t node : nodes) {
        EXPECT_EQ(At(node, target), body.empty() ? first : body) << target << " at " << Name(node);
      }
      known += body.empty() ? 0 : 1;
    }
    EXPECT_GT(known, 0U);
  }
};

TEST_F(NodesUnderLoadTest, WhenANodeIsKilledTheOthersGoOnAndNothingAcknowledgedIsLost) {
  StartNodes(3, {"--keep-failed", "1"});
  MakeBucket(0, "bucket");
  const auto load = MakeLoad(3);
  load->WaitForMore(100);
  nodes_[1]->Kill();
  load->WaitForMore(50);
  load->End();
  ExpectAcknowledged(*load, {0, 2});
  ASSERT_TRUE(nodes_[1]->Start(As("b", {"--keep-failed", "1"})));
  ExpectAcknowledged(*load, {0, 1, 2});
  // What it had stored for requests that it never finished is gone.
  EXPECT_TRUE(WaitUntil([this] {
    return CountStored() ==
           static_cast<std::size_t>(std::stoi(database_.Rows("SELECT count(*) FROM platform.local_object").front()));
  })) << CountStored();
}

TEST_F(NodesUnderLoadTest, WhatClientsAreToldIsTrueWhileConnectionsEndAndTheDatabaseIsStartedAgain) {
  StartNodes(3);
  MakeBucket(0, "bucket");
  const auto load = MakeLoad(3);
  for (int round = 0; round < 10; ++round) {
    load->WaitForMore(10);
    database_.EndConnections();
  }
  database_.Crash();
  database_.Start();
  load->WaitForMore(20);
  load->End();
  ExpectAcknowledged(*load, {0, 1, 2});
}

TEST_F(NodesTest, WithoutTheDatabaseNothingOldIsAnswered) {
  StartNodes(2);
  MakeBucket(0, "bucket");
  Put(0, "/bucket/o", "body");
  EXPECT_EQ(At(1, "/bucket/o"), "body");
  database_.Freeze();
  EXPECT_TRUE(WaitUntil([this] { return At(1, "/bucket/o") == "503 ServiceUnavailable"; }));
  EXPECT_EQ(At(1, "/bucket/unknown"), "503 ServiceUnavailable");
  EXPECT_EQ(Outcome(Send(1, "PUT", "/bucket/new", "body")), "503 ServiceUnavailable");
  database_.Thaw();
  EXPECT_TRUE(WaitUntil([this] { return At(1, "/bucket/o") == "body"; }));
  EXPECT_EQ(At(1, "/bucket/unknown"), "404 NoSuchKey");
  database_.Crash();
  EXPECT_TRUE(WaitUntil([this] { return At(0, "/bucket/o") == "503 ServiceUnavailable"; }));
  database_.Start();
  EXPECT_TRUE(WaitUntil([this] { return At(0, "/bucket/o") == "body"; }));
  EXPECT_TRUE(WaitUntil([this] { return Send(0, "PUT", "/bucket/o", "after").status == 200; })) << Logs();
  ExpectSoon(1, "/bucket/o", "after");
}

TEST_F(NodesTest, ANodeThatStoodStillAnswersNothingOldAndWritesOverNothingNew) {
  StartNodes(3);
  MakeBucket(0, "bucket");
  Put(0, "/bucket/o", "before");
  EXPECT_EQ(At(2, "/bucket/o"), "before");
  // Requests that are under way at node c when it stops.
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int writer = 0; writer < 4; ++writer) {
    writers.emplace_back([&, writer] {
      for (int i = 0; !stop; ++i) {
        Send(2, "PUT", "/bucket/other" + std::to_string(writer), std::to_string(i));
      }
    });
  }
  for (int round = 0; round < 3; ++round) {
    nodes_[2]->Signal(SIGSTOP);
    const std::string body = "after " + std::to_string(round);
    Put(0, "/bucket/o", body);
    EXPECT_EQ(Outcome(Send(1, "PUT", "/bucket/new" + std::to_string(round), body)), "200") << Logs();
    std::this_thread::sleep_for(kLag);
    nodes_[2]->Signal(SIGCONT);
    EXPECT_EQ(At(2, "/bucket/o"), body);
    EXPECT_EQ(At(2, "/bucket/new" + std::to_string(round)), body);
  }
  stop = true;
  for (std::thread& writer : writers) {
    writer.join();
  }
}

TEST_F(NodesTest, ANodeThatFindsItsPlaceInTheLogNoMoreLoadsTheCatalogueAnew) {
  StartNodes(2);
  MakeBucket(0, "bucket");
  Put(0, "/bucket/o", "before");
  Put(0, "/bucket/gone", "there");
  EXPECT_EQ(At(1, "/bucket/gone"), "there");
  // First the log has become shorter, then it has lost what this node had seen of it.
  for (const char* loss : {"DELETE FROM platform.catalogue_changes WHERE seq < (SELECT max(seq) FROM "
                           "platform.catalogue_changes)",
                           "UPDATE platform.catalogue_changes SET mark = mark + 1"}) {
    const std::string body = std::string("after ") + loss;
    nodes_[1]->Signal(SIGSTOP);
    MakeBucket(0, body.substr(6, 6));
    Put(0, "/" + body.substr(6, 6) + "/o", "new");
    Put(0, "/bucket/o", body);
    EXPECT_THAT(Outcome(Send(0, "DELETE", "/bucket/gone")), AnyOf("200", "404 NoSuchKey"));
    database_.Run(loss);
    nodes_[1]->Signal(SIGCONT);
    ExpectSoon(1, "/bucket/o", body);
    ExpectSoon(1, "/bucket/gone", "404 NoSuchKey");
    EXPECT_EQ(At(1, "/" + body.substr(6, 6) + "/o"), "new");
    Put(1, "/bucket/o", "again");
    ExpectSoon(0, "/bucket/o", "again");
  }
  EXPECT_THAT(nodes_[1]->GetLog(), HasSubstr("the catalogue is loaded anew"));
}

TEST_F(NodesTest, ANodeWithoutItsLeaseWritesNothingUntilItHasANewOne) {
  StartNodes(2);
  MakeBucket(0, "bucket");
  database_.Run(
      "UPDATE platform.nodes SET epoch = epoch + 1, owner = 'another:/data', process = 'another' WHERE name = 'b'");
  EXPECT_EQ(Outcome(Send(1, "PUT", "/bucket/o", "body")), "500 ServerInternalError");
  EXPECT_EQ(At(1, "/bucket/o"), "404 NoSuchKey");
  EXPECT_TRUE(WaitUntil([this] {
    return nodes_[1]->GetLog().find("another tansyd (another:/data) runs as node b: nothing is written any more") !=
           std::string::npos;
  })) << Logs();
  Put(0, "/bucket/o", "body");
  EXPECT_EQ(At(1, "/bucket/o"), "body");
  database_.Run("UPDATE platform.nodes SET seen_at = seen_at - interval '1 hour' WHERE name = 'a'");
  EXPECT_TRUE(WaitUntil([this] { return Send(0, "PUT", "/bucket/o", "again").status == 200; })) << Logs();
  EXPECT_TRUE(WaitUntil([this] { return nodes_[0]->GetLog().find("node a begins a new lease") != std::string::npos; }))
      << Logs();
}

TEST_F(NodesTest, AMoveIsRefusedBecauseOtherNodesWouldNotFollow) {
  StartNodes(1);
  CTansyd command(temp_.GetPath(), "command");
  Launch launch = As("a", {"move", "--data", temp_.Path("data-a"), "--to-database", "sqlite:rows.db"});
  launch.with_data = launch.with_ports = false;
  Ended ended = command.RunToEnd(launch);
  EXPECT_EQ(ended.code, 1) << ended.out << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("move: other nodes would not follow"));
  EXPECT_TRUE(nodes_[0]->Stop());
  ended = command.RunToEnd(launch);
  EXPECT_EQ(ended.code, 1) << ended.out << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("move: other nodes would not follow"));
}

TEST_F(NodesTest, ARepairIsForOneNodeAlone) {
  StartNodes(2);
  MakeBucket(0, "bucket");
  Put(0, "/bucket/o", "body");
  CTansyd check(temp_.GetPath(), "data-a");
  Launch launch = As("a", {"--check"});
  launch.with_ports = false;
  Ended ended = check.RunToEnd(launch);
  EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("check: 1 rows, 1 stored files, 0 orphans"));
  launch.arguments.push_back("--repair");
  ended = check.RunToEnd(launch);
  EXPECT_EQ(ended.code, 1) << ended.out << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("node b runs on the same storage"));
  EXPECT_TRUE(nodes_[1]->Stop());
  EXPECT_TRUE(WaitUntil([&] {
    ended = check.RunToEnd(launch);
    return ended.code == 0;
  })) << ended.out
      << ended.err;
}

}  // namespace
}  // namespace system_tests
