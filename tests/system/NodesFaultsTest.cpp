// Tests what nodes answer when something goes wrong at a chosen moment: connections that end at each step of a write, a
// node or a network that stands still in the middle of one, answers that are lost, clocks that are wrong, a database
// that is set back.
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "fakes/PostgresProxy.h"
#include "support/NodesFixture.h"

namespace system_tests {
namespace {

using Tansy::Tests::CPostgresProxy;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;
using EThen = CPostgresProxy::EThen;
using Passing = CPostgresProxy::Passing;

// Others wait no longer for a node that keeps them out (docs/cluster.md says five seconds), on a machine that is busy.
// Without anybody's help they would fail after ten.
constexpr std::chrono::milliseconds kLongestTurn{9000};

// Node "a" reaches the database through a proxy, node "b" directly.
class NodesFaultsTest : public NodesFixture {
 protected:
  ~NodesFaultsTest() override { proxy_.Speak(); }

  void StartBoth() {
    urls_["a"] = proxy_.Url();
    StartNodes(2);
    MakeBucket(0, "bucket");
    Put(0, "/bucket/o", "before");
  }
  // Says what a connection is for, as far as it can be told from what the node has sent on it.
  static std::string PurposeOf(std::string_view text) {
    const std::pair<const char*, const char*> marks[] = {{"begin_write(", "writer"},
                                                         {"platform.catalogue_changes", "follower"},
                                                         {"LISTEN", "listener"},
                                                         {"UPDATE platform.nodes", "lease"}};
    for (const auto& [mark, purpose] : marks) {
      if (text.find(mark) != std::string_view::npos) {
        return purpose;
      }
    }
    return "";
  }

  CPostgresProxy proxy_{database_};
};

// Counts the messages of the connection that writes, and does something in front of one of them.
class CSteps {
 public:
  using Act = std::function<EThen()>;

  CSteps(CPostgresProxy& proxy, std::function<std::string(std::string_view)> purpose_of)
      : proxy_(proxy), purpose_of_(std::move(purpose_of)) {
    proxy_.SetHook([this](const Passing& passing) { return Look(passing); });
  }
  ~CSteps() { proxy_.SetHook({}); }

  // `kinds` are those of the messages that count; "" for all.
  void ActAt(int step, const std::string& kinds, Act act) {
    const std::lock_guard lock(mutex_);
    left_ = step;
    kinds_ = kinds;
    act_ = std::move(act);
    has_acted_ = false;
  }
  bool HasActed() const { return has_acted_; }
  // The server's process for the connection of that purpose which came last.
  int ProcessOf(const std::string& purpose) {
    const std::lock_guard lock(mutex_);
    return processes_[purpose];
  }

 private:
  EThen Look(const Passing& passing) {
    Act act;
    {
      const std::lock_guard lock(mutex_);
      const std::string purpose = purpose_of_(passing.text);
      if (!purpose.empty()) {
        processes_[purpose] = passing.server_process;
      }
      const bool counts = kinds_.empty() || kinds_.find(passing.kind) != std::string::npos;
      if (left_ == 0 || passing.server_process != processes_["writer"] || !counts || --left_ > 0) {
        return EThen::kPass;
      }
      act = std::move(act_);
      has_acted_ = true;
    }
    return act();
  }

  CPostgresProxy& proxy_;
  const std::function<std::string(std::string_view)> purpose_of_;
  std::atomic<bool> has_acted_{false};
  std::mutex mutex_;  // guards what follows
  std::map<std::string, int> processes_;
  int left_ = 0;
  std::string kinds_;
  Act act_;
};

TEST_F(NodesFaultsTest, WhicheverConnectionEndsAtWhicheverStepOfAWriteTheAnswerIsTrue) {
  CSteps steps(proxy_, &PurposeOf);
  StartBoth();
  std::string there = "before";
  int acts = 0;
  for (const std::string ended : {"writer", "writer, unheard", "follower", "listener", "lease"}) {
    int step = 1;
    for (bool has_acted = true; has_acted; ++step) {
      steps.ActAt(step, "", [&] {
        if (ended == "writer, unheard") {
          return EThen::kCut;
        }
        const std::string process = "pid = " + std::to_string(steps.ProcessOf(ended));
        database_.EndConnections(process);
        while (!database_.Rows("SELECT 1 FROM pg_stat_activity WHERE " + process).empty()) {
          std::this_thread::yield();
        }
        return EThen::kPass;
      });
      const std::string body = ended + " " + std::to_string(step);
      const std::string outcome = Outcome(Send(0, "PUT", "/bucket/o", body));
      has_acted = steps.HasActed();
      acts += has_acted ? 1 : 0;
      EXPECT_THAT(outcome, AnyOf("200", "500 ServerInternalError", "503 ServiceUnavailable")) << body;
      if (outcome == "200") {
        there = body;
      }
      EXPECT_TRUE(WaitUntil([&] { return At(0, "/bucket/o") != "503 ServiceUnavailable"; }));
      EXPECT_EQ(At(0, "/bucket/o"), there) << body << " was answered with " << outcome;
      ExpectSoon(1, "/bucket/o", there);
    }
    EXPECT_EQ(there, ended + " " + std::to_string(step - 1)) << "a write that nothing disturbs succeeds";
  }
  EXPECT_GT(acts, 5 * 10) << "a write has many steps";
  EXPECT_EQ(database_.Rows("SELECT count(*) FROM platform.local_object"), std::vector<std::string>{"1"});
}

// The others wait for their turn, which the database gives them however a transaction was left.
TEST_F(NodesFaultsTest, ANodeThatStandsStillAtWhicheverStepOfAWriteKeepsTheOthersOutForSecondsOnly) {
  CSteps steps(proxy_, &PurposeOf);
  StartBoth();
  std::string there = "before";
  int step = 1;
  for (bool has_acted = true; has_acted; ++step) {
    // Each statement that is run, and each end of a group of them.
    steps.ActAt(step, "ES", [&] {
      proxy_.Silence();
      proxy_.WaitWhileSilent();
      return EThen::kPass;
    });
    const std::string body = "step " + std::to_string(step);
    std::string outcome;
    std::thread writer([&] { outcome = Outcome(Send(0, "PUT", "/bucket/o", body)); });
    const std::string other = "/bucket/other" + std::to_string(step);
    EXPECT_TRUE(WaitUntil([&] { return steps.HasActed() || !outcome.empty(); }));
    has_acted = steps.HasActed();
    if (has_acted) {
      nodes_[0]->Signal(SIGSTOP);
      const Clock::time_point begun = Clock::now();
      Put(1, other, body);
      EXPECT_LT(Clock::now() - begun, kLongestTurn) << body;
      nodes_[0]->Signal(SIGCONT);
      proxy_.Speak();
    }
    writer.join();
    EXPECT_THAT(outcome, AnyOf("200", "500 ServerInternalError", "503 ServiceUnavailable")) << body;
    if (outcome == "200") {
      there = body;
    }
    EXPECT_TRUE(WaitUntil([&] { return At(0, "/bucket/o") != "503 ServiceUnavailable"; }));
    EXPECT_EQ(At(0, "/bucket/o"), there) << body << " was answered with " << outcome;
    ExpectSoon(1, "/bucket/o", there);
    if (has_acted) {
      EXPECT_EQ(At(0, other), body);
    }
  }
  EXPECT_GT(step, 6) << "a write has several statements";
}

TEST_F(NodesFaultsTest, ANodeThatTheDatabaseDoesNotAnswerSaysSoInTimeAndTheOthersGoOn) {
  CSteps steps(proxy_, &PurposeOf);
  StartBoth();
  // A write is under way when the network falls silent.
  steps.ActAt(1, "S", [&] {
    proxy_.Silence();
    proxy_.WaitWhileSilent();
    return EThen::kPass;
  });
  std::atomic<bool> is_answered{false};
  std::string outcome;
  std::thread writer([&] {
    outcome = Outcome(Send(0, "PUT", "/bucket/o", "unheard"));
    is_answered = true;
  });
  EXPECT_TRUE(WaitUntil([&] { return steps.HasActed(); }));
  EXPECT_TRUE(WaitUntil([&] { return At(0, "/bucket/o") == "503 ServiceUnavailable"; }));
  for (int i = 0; i < 20; ++i) {
    const std::string target = "/bucket/" + std::to_string(i);
    EXPECT_EQ(At(0, "/bucket/o"), "503 ServiceUnavailable") << "nothing old is answered";
    EXPECT_EQ(Outcome(Send(0, "PUT", target, "body")), "503 ServiceUnavailable");
    Put(1, target, "body");
  }
  EXPECT_EQ(At(1, "/bucket/o"), "before");
  EXPECT_TRUE(WaitUntil([&] { return is_answered.load(); })) << "a write does not wait for ever";
  writer.join();
  EXPECT_THAT(outcome, AnyOf("500 ServerInternalError", "503 ServiceUnavailable"));
  proxy_.Speak();
  EXPECT_TRUE(WaitUntil([&] { return At(0, "/bucket/o") == "before"; })) << Logs();
  EXPECT_EQ(At(0, "/bucket/19"), "body");
  EXPECT_TRUE(WaitUntil([&] { return Send(0, "PUT", "/bucket/o", "after").status == 200; })) << Logs();
  ExpectSoon(1, "/bucket/o", "after");
}

TEST_F(NodesFaultsTest, ALeaseWhoseAnswerWasLostIsFoundAgain) {
  StartBoth();
  // The server gives new leases, and for a while the answers are lost.
  std::atomic<int> process{0};
  std::atomic<int> lost{0};
  proxy_.SetHook([&](const Passing& passing) {
    if (passing.text.find("epoch + ") != std::string_view::npos) {
      process = passing.server_process;
    }
    const bool is_end = passing.kind == 'S' && passing.server_process == process;
    if (is_end) {
      process = 0;
    }
    return is_end && ++lost <= 3 ? EThen::kCut : EThen::kPass;
  });
  database_.Run("UPDATE platform.nodes SET seen_at = seen_at - interval '1 minute' WHERE name = 'a'");
  EXPECT_TRUE(WaitUntil([&] { return lost > 3; }));
  EXPECT_TRUE(WaitUntil([&] { return Send(0, "PUT", "/bucket/o", "after").status == 200; })) << Logs();
  ExpectSoon(1, "/bucket/o", "after");
  EXPECT_THAT(nodes_[0]->GetLog(), Not(HasSubstr("nothing is written any more")));
}

TEST_F(NodesFaultsTest, NodesGoOnInADatabaseThatWasSetBack) {
  StartBoth();
  Put(0, "/bucket/removed", "there");
  database_.KeepCopy();
  EXPECT_TRUE(WaitUntil([&] { return Send(0, "PUT", "/bucket/o", "later").status == 200; }));
  EXPECT_TRUE(WaitUntil([&] { return Send(1, "PUT", "/bucket/new", "later").status == 200; }));
  EXPECT_TRUE(WaitUntil([&] { return Outcome(Send(1, "DELETE", "/bucket/removed")) == "200"; }));
  // The entry in the copy is that of an earlier process.
  EXPECT_TRUE(nodes_[1]->Stop());
  ASSERT_TRUE(nodes_[1]->Start(As("b")));
  for (int i = 0; i < 50; ++i) {
    Put(1, "/bucket/later" + std::to_string(i), "later");
  }
  database_.GoBack();
  for (std::size_t node : {0U, 1U}) {
    EXPECT_TRUE(WaitUntil([&] { return At(node, "/bucket/o") == "before"; })) << At(node, "/bucket/o") << Logs();
    EXPECT_EQ(At(node, "/bucket/new"), "404 NoSuchKey");
    EXPECT_EQ(At(node, "/bucket/removed"), "there");
    EXPECT_EQ(At(node, "/bucket/later7"), "404 NoSuchKey");
    const std::string first = "/bucket/first-of-" + Name(node);
    EXPECT_TRUE(WaitUntil([&] { return Send(node, "PUT", first, "body").status == 200; })) << Logs();
  }
  // Numbers that were given to rows which are gone by now disturb nobody.
  for (int i = 0; i < 50; ++i) {
    const std::string target = "/bucket/again" + std::to_string(i);
    Put(static_cast<std::size_t>(i % 2), target, target);
    EXPECT_EQ(At(static_cast<std::size_t>(1 - i % 2), target), target);
  }
}

TEST_F(NodesFaultsTest, OfTwoProcessesWithOneNameTheOneThatStoodStillWritesNothingAnyMore) {
  StartNodes(2);
  MakeBucket(1, "bucket");
  const std::string id = XmlValue(Send(0, "POST", "/bucket/parts?uploads").body, "UploadId");
  ASSERT_NE(id, "");
  const std::string part = "/bucket/parts?upload_id=" + id + "&part_number=";
  const std::string list =
      "<CompleteMultipartUpload><TotalPartNum>2</TotalPartNum><Part><PartNumber>1</PartNumber><PartSize>4</PartSize>"
      "</Part><Part><PartNumber>2</PartNumber><PartSize>4</PartSize></Part></CompleteMultipartUpload>";
  nodes_[0]->Signal(SIGSTOP);
  database_.Run("UPDATE platform.nodes SET seen_at = seen_at - interval '1 minute' WHERE name = 'a'");
  nodes_.push_back(std::make_unique<CTansyd>(temp_.GetPath(), "data-of-the-second"));
  ASSERT_TRUE(nodes_[2]->Start(As("a"))) << nodes_[2]->GetErrors();
  EXPECT_EQ(Outcome(Send(2, "POST", part + "1", "1111")), "200") << Logs();
  EXPECT_EQ(Outcome(Send(2, "POST", part + "2", "2222")), "200") << Logs();
  EXPECT_EQ(Outcome(Send(2, "POST", "/bucket/parts?upload_id=" + id, list)), "200") << Logs();
  nodes_[0]->Signal(SIGCONT);
  EXPECT_NE(Send(0, "POST", part + "1", "xxxx").status, 200);
  EXPECT_NE(Send(0, "POST", part + "2", "xxxx").status, 200);
  EXPECT_NE(Send(0, "POST", "/bucket/parts?upload_id=" + id, list).status, 200);
  EXPECT_NE(Send(0, "PUT", "/bucket/o", "body").status, 200);
  EXPECT_TRUE(WaitUntil([&] {
    return nodes_[0]->GetLog().find("runs as node a: nothing is written any more") != std::string::npos;
  })) << Logs();
  EXPECT_TRUE(WaitUntil([&] { return Health(0).status == 503; })) << Health(0).body;
  EXPECT_THAT(Health(0).body, HasSubstr("\"lease\":\"node a does not hold its name"));
  EXPECT_THAT(Health(2).body, HasSubstr("\"lease\":\"well\""));
  for (const std::size_t node : {1U, 2U, 0U}) {
    EXPECT_EQ(At(node, "/bucket/parts"), "11112222");
  }
  // It does not come back when the other one ends.
  EXPECT_TRUE(nodes_[2]->Stop());
  EXPECT_NE(Send(0, "PUT", "/bucket/o", "body").status, 200);
  EXPECT_EQ(At(1, "/bucket/o"), "404 NoSuchKey");
}

// A machine and its copy have the same name and the same folders. What tells them apart is when they were started.
TEST_F(NodesFaultsTest, ACopyOfAMachineDoesNotTakeTheNameOfTheOther) {
  StartNodes(1);
  nodes_[0]->Kill();
  database_.Run("UPDATE platform.nodes SET machine_start = 'of the copy' WHERE name = 'a'");
  const Ended ended = nodes_[0]->RunToEnd(As("a"));
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("node a runs already ("));
  database_.Run("UPDATE platform.nodes SET seen_at = seen_at - interval '1 minute'");
  EXPECT_TRUE(nodes_[0]->Start(As("a"))) << nodes_[0]->GetErrors();
}

// The node whose memory is behind must not say that it has made a bucket which it only remembers.
TEST_F(NodesFaultsTest, ABucketThatAnotherNodeHasJustRemovedIsMadeAnew) {
  std::atomic<bool> is_behind{false};
  StartBoth();
  proxy_.SetHook([&](const Passing& passing) {
    while (is_behind && PurposeOf(passing.text) == "follower") {
      std::this_thread::yield();
    }
    return EThen::kPass;
  });
  for (int i = 0; i < 5; ++i) {
    const std::string bucket = "/made-" + std::to_string(i);
    EXPECT_EQ(StatusOf(SendS3(0, "PUT", bucket)), "200");
    is_behind = true;
    EXPECT_EQ(StatusOf(SendS3(1, "DELETE", bucket)), "204") << Logs();
    std::string status;
    std::thread maker([&] { status = StatusOf(SendS3(0, "PUT", bucket)); });
    std::this_thread::sleep_for(kLag / 4);  // memory that old may still be read
    is_behind = false;
    maker.join();
    EXPECT_THAT(status, AnyOf("200", "503"));
    if (status == "200") {
      EXPECT_EQ(StatusOf(SendS3(1, "PUT", bucket + "/o", {}, "body")), "200") << Logs();
    }
  }
}

TEST_F(NodesFaultsTest, AnUploadDoesNotBeginInABucketThatIsGone) {
  StartNodes(1);
  MakeBucket(0, "bucket");
  const std::string begin =
      "INSERT INTO platform.local_upload (object_url, object_name, bucket_name, sort_key, attributes, begun, "
      "update_time) VALUES (''parts:1'', ''o'', ''BUCKET'', '''', '''', '''', '''')";
  const auto failure_of = [&](const std::string& bucket) {
    std::string sql = "DO 'BEGIN PERFORM set_config(''tansy.node'', ''a'', true); " + begin + "; END'";
    sql.replace(sql.find("BUCKET"), 6, bucket);
    return database_.FailureOf(sql);
  };
  EXPECT_THAT(failure_of("gone"), HasSubstr("bucket gone does not exist"));
  EXPECT_EQ(failure_of("bucket"), "");
}

class NodesClocksTest : public NodesFixture {
 protected:
  Launch WithClock(const std::string& name, std::int64_t seconds) {
    Launch launch = As(name);
    launch.program = TANSYD_WITH_ANOTHER_CLOCK;
    launch.environment["CLOCK_IS_AHEAD_BY"] = std::to_string(seconds);
    return launch;
  }
  void StartWithClock(const std::string& name, std::int64_t seconds) {
    nodes_.push_back(std::make_unique<CTansyd>(temp_.GetPath(), "data-" + name));
    ASSERT_TRUE(nodes_.back()->Start(WithClock(name, seconds))) << nodes_.back()->GetErrors();
  }
};

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kFourDays = 4 * 24 * kHour;

TEST_F(NodesClocksTest, ClocksThatAreApartHarmNothing) {
  StartWithClock("a", 0);
  StartWithClock("b", kHour);
  StartWithClock("c", -kFourDays);
  StartWithClock("d", kFourDays);
  const std::string now = database_.Rows("SELECT to_char(now() AT TIME ZONE 'UTC', 'YYYY-MM-DD')").front();
  MakeBucket(0, "bucket");
  for (int i = 0; i < 24; ++i) {
    const std::size_t node = static_cast<std::size_t>(i) % 4;
    const std::string body = "by " + Name(node) + " " + std::to_string(i);
    Put(node, "/bucket/o", body);
    Put(node, "/bucket/new" + std::to_string(i), body);
    for (const std::size_t other : {0U, 1U, 2U, 3U}) {
      ExpectSoon(other, "/bucket/o", body);
      EXPECT_EQ(At(other, "/bucket/new" + std::to_string(i)), body);
    }
  }
  EXPECT_EQ(Outcome(Send(3, "DELETE", "/bucket/o")), "200");
  ExpectSoon(2, "/bucket/o", "404 NoSuchKey");
  // The times that other days would be seen by.
  const std::string log = nodes_[3]->GetLog();
  EXPECT_THAT(log, Not(HasSubstr("[" + now))) << "the clock of this node is not ahead";
  EXPECT_EQ(database_.Rows("SELECT count(*) FROM platform.nodes WHERE seen_at > now() - interval '10 seconds'"),
            std::vector<std::string>{"4"});
  EXPECT_EQ(database_.Rows("SELECT max(epoch) FROM platform.nodes"), std::vector<std::string>{"1"});
}

// Uploads that are younger than three days go on, whoever has begun them and whoever looks after them.
TEST_F(NodesClocksTest, UploadsGoOnWhateverTheClocksSay) {
  StartWithClock("b", 0);
  StartWithClock("c", -kFourDays);
  MakeBucket(0, "bucket");
  const std::string answer = SendS3(0, "POST", "/bucket/s3?uploads=");
  const std::string s3 = XmlValue(answer, "UploadId");
  ASSERT_NE(s3, "") << answer;
  const std::string id = XmlValue(Send(1, "POST", "/bucket/parts?uploads").body, "UploadId");
  ASSERT_NE(id, "");
  // The node that looks after uploads, and the one that holds the other upload, which finds its clock set right.
  StartWithClock("a", kFourDays);
  EXPECT_TRUE(nodes_[1]->Stop());
  ASSERT_TRUE(nodes_[1]->Start(WithClock("c", 0))) << nodes_[1]->GetErrors();
  const std::string target = "/bucket/parts?upload_id=" + id;
  const std::string list =
      "<CompleteMultipartUpload><TotalPartNum>1</TotalPartNum><Part><PartNumber>1</PartNumber>"
      "<PartSize>4</PartSize></Part></CompleteMultipartUpload>";
  EXPECT_EQ(Outcome(Send(1, "POST", target + "&part_number=1", "part")), "200") << Logs();
  EXPECT_EQ(Outcome(Send(1, "POST", target, list)), "200") << Logs();
  const std::string part = SendS3(0, "PUT", "/bucket/s3?partNumber=1&uploadId=" + s3, {}, "part");
  EXPECT_EQ(StatusOf(part), "200") << part << Logs();
  // A signature that is not of this hour is refused where the clock is wrong, and only there.
  EXPECT_THAT(SendS3(2, "GET", "/bucket"), HasSubstr("RequestTimeTooSkewed"));
}

}  // namespace
}  // namespace system_tests
