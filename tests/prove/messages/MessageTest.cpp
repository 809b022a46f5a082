// Where a catalogue or bytes are kept by other servers, what can be cut off is the talk with them. Each message of each
// kind of request is the last one of a tansyd that is killed, or of its connection: what was acknowledged is there and
// whole, what was not is there or not, other nodes go on, and the next request is served.
#include <gtest/gtest.h>
#include <signal.h>

#include <array>
#include <chrono>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Backend.h"
#include "Inspection.h"
#include "MessageSwitch.h"
#include "ProveFolder.h"
#include "Settings.h"
#include "Workload.h"
#include "support/Program.h"
#include "support/TansydTest.h"

namespace prove {
namespace {

using system_tests::CTansyd;

constexpr std::chrono::milliseconds kLag{1000};  // what nodes may be behind
constexpr int kNeverSoMany = 400;
constexpr int kKilled = 128 + SIGKILL;
constexpr std::size_t kOwnFile = 200000;

struct Where {
  const char* name;
  EDatabase database;
  EStorage storage;
  std::size_t nodes;

  friend void PrintTo(const Where& where, std::ostream* out) { *out << where.name; }
};

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line + "\n";
  }
  return text;
}

class MessagesTest : public testing::TestWithParam<Where> {
 protected:
  void SetUp() override {
    const std::string shared = GetParam().nodes > 1 ? folder_.GetPath() + "/shared" : "";
    backend_.emplace(GetParam().database, GetParam().storage, folder_.GetPath() + "/data-a", shared);
    for (std::size_t node = 0; node < GetParam().nodes; ++node) {
      const std::string name(1, static_cast<char>('a' + node));
      servers_.push_back(std::make_unique<CTansyd>(folder_.GetPath(), "data-" + name));
      system_tests::Launch launch = PlainLaunch();
      if (node == 0) {
        launch.program = TANSYD_THAT_HANGS_UP;
        launch.environment["MESSAGE_PLAN"] = folder_.GetPath() + "/plan";
      }
      launch.with_s3 = true;
      launch.arguments = {"--keep-failed", "1"};
      launch.arguments.insert(launch.arguments.end(), backend_->GetArguments().begin(), backend_->GetArguments().end());
      if (GetParam().nodes > 1) {
        launch.arguments.insert(launch.arguments.end(), {"--node-name", name});
      }
      launches_.push_back(launch);
    }
  }
  void TearDown() override {
    for (const auto& server : servers_) {
      server->Kill();
    }
  }
  bool StartAll() {
    for (std::size_t node = 0; node < servers_.size(); ++node) {
      if (!servers_[node]->Start(launches_[node])) {
        return false;
      }
    }
    return true;
  }
  CTansyd& First() { return *servers_.front(); }

  std::string Body(std::size_t size) { return BodySpec(next_, size); }
  std::string Send(ERequest kind, const std::string& key, const std::string& body = "-", const std::string& task = "-",
                   int part = 0, std::string* extra = nullptr, std::size_t node = 0) {
    Request request;
    request.number = next_++;
    request.kind = kind;
    request.key = key;
    request.body = body;
    request.task = task;
    request.part = part;
    return prove::Send(*servers_[node], marks_, request, extra);
  }
  // One that must succeed; gives the answer's extra.
  std::string Do(ERequest kind, const std::string& key, const std::string& body = "-", const std::string& task = "-",
                 int part = 0) {
    std::string extra;
    const std::string outcome = Send(kind, key, body, task, part, &extra);
    Expect(outcome == "200", "an undisturbed request: " + outcome);
    return extra;
  }
  void Expect(bool is_true, const std::string& what) {
    if (!is_true) {
      broken_.push_back(where_ + ": " + what);
    }
  }

  // What comes before a request and is not disturbed, and the request, which gets what the preparation gives.
  struct Case {
    const char* name;
    std::function<std::string()> prepare = [] { return std::string(); };
    std::function<std::string(const std::string& prepared)> request;
    bool changes_rows = true;
    bool changes_bytes = true;
  };
  std::vector<Case> Cases() {
    const auto none = [] { return std::string(); };
    const auto there = [this] { return Do(ERequest::kPut, "there", Body(100)); };
    std::vector<Case> cases = {
        {"a new object", none,
         [this](auto) { return Send(ERequest::kPut, "new-" + std::to_string(next_), Body(300)); }},
        {"another object", there, [this](auto) { return Send(ERequest::kPut, "there", Body(kOwnFile)); }},
        {"a removal", there, [this](auto) { return Send(ERequest::kRemove, "there"); }},
        {"a new object by S3, under a condition", none, [this](auto) { return PutNewByS3(); }},
        {"a removal without the bytes", there, [this](auto) { return Send(ERequest::kDelete, "there"); }, true, false},
        {"a completion", [this] { return Do(ERequest::kBegin, "parts"); },
         [this](const std::string& task) { return SendParts(task, ERequest::kPart, ERequest::kComplete); }},
        {"a picture", none, [this](auto) { return Send(ERequest::kPicture, "-", Body(2000)); }, false},
        {"another object by S3", there, [this](auto) { return Send(ERequest::kPutByS3, "there", Body(kOwnFile)); }},
        {"a removal by S3", there, [this](auto) { return Send(ERequest::kRemoveByS3, "there"); }, true, false},
        {"a copy by S3", [this] { return PutSource(); },
         [this](const std::string& body) { return Send(ERequest::kCopyByS3, "copy", body, "source"); }},
        {"an upload by S3", none, [this](auto) { return Send(ERequest::kBeginByS3, "parts"); }, true, false},
        {"a completion by S3", [this] { return Do(ERequest::kBeginByS3, "parts"); },
         [this](const std::string& upload) { return SendParts(upload, ERequest::kPartByS3, ERequest::kCompleteByS3); }},
    };
    if (!Settings::Get().IsLong()) {
      const bool is_slow = GetParam().nodes > 1 && GetParam().storage == EStorage::kPool;
      cases.resize(is_slow ? 2 : 4);
    }
    return cases;
  }
  // One part, and the completion.
  std::string SendParts(const std::string& upload, ERequest part, ERequest completion) {
    const std::string body = Body(5000);
    const std::string outcome = Send(part, "parts", body, upload, 1);
    return outcome == "200" ? Send(completion, "parts", body, upload) : outcome;
  }
  std::string PutSource() {
    const std::string body = Body(700);
    Do(ERequest::kPut, "source", body);
    return body;
  }
  // The key has never had an object, whatever becomes of the messages.
  std::string PutNewByS3() {
    const std::string outcome = Send(ERequest::kPutNewByS3, "new-" + std::to_string(next_), Body(300));
    Expect(outcome.rfind("412", 0) != 0, "the condition held: " + outcome);
    return outcome;
  }

  void DisturbEach() {
    ASSERT_TRUE(StartAll());
    Do(ERequest::kBucket, "b", "made");
    for (const Case& the_case : Cases()) {
      for (const EMessage what : {EMessage::kDieBefore, EMessage::kDieAfter, EMessage::kLost, EMessage::kAnswerLost}) {
        DisturbEach(the_case, what);
        ExpectPromises();
        ASSERT_EQ(Joined(broken_), "") << Logs();
      }
    }
    std::cout << disturbed_ << " messages, all as promised" << std::endl;
    EXPECT_GT(disturbed_, 5);
  }

  // Says whether a request cannot do without a message to another server.
  bool NeedsMessages(const Case& the_case) const {
    return (the_case.changes_rows && GetParam().database == EDatabase::kPostgres) ||
           (the_case.changes_bytes && GetParam().storage == EStorage::kPool);
  }

  // A short run leaves some messages out, where there are many of them.
  void DisturbEach(const Case& the_case, EMessage what) {
    const bool has_few = GetParam().database == EDatabase::kSqlite;
    const int widest = Settings::Get().IsLong() || has_few ? 1 : 3;
    int number = 1;
    for (bool has_come = true; has_come && broken_.empty();
         number += 1 + static_cast<int>(random_() % static_cast<unsigned>(widest))) {
      where_ = std::string(the_case.name) + ", message " + std::to_string(number) + ", way " +
               std::to_string(static_cast<int>(what));
      const std::string prepared = the_case.prepare();
      switch_.Set(what, number);
      const std::string outcome = the_case.request(prepared);
      has_come = switch_.Clear();
      disturbed_ += has_come ? 1 : 0;
      Expect(has_come || outcome == "200", "the request: " + outcome);
      Expect(has_come || number > 1 || !NeedsMessages(the_case), "there was no message");
      Expect(number < kNeverSoMany, "there is no end");
      if (has_come && what <= EMessage::kDieAfter) {
        ExpectOthersServe();
        Expect(First().WaitForEnd(kill_patience_).code == kKilled, "the process was not killed");
        First().Kill();
        Expect(First().Start(launches_.front()), "no start");
      }
      ExpectServes(0);
    }
  }

  // The next request is served, if not at once then when the connection has been made again.
  void ExpectServes(std::size_t node) {
    const std::string key = "healthy-" + std::to_string(node);
    const std::string body = Body(50 + next_ % 50);
    const bool is_served =
        system_tests::WaitUntil([&] { return Send(ERequest::kPut, key, body, "-", 0, nullptr, node) == "200"; });
    Expect(is_served, "node " + std::to_string(node) + " serves no more");
  }
  void ExpectOthersServe() {
    for (std::size_t node = 1; node < servers_.size(); ++node) {
      ExpectServes(node);
    }
  }

  // Looks at everything, on every node.
  void ExpectPromises() {
    if (servers_.size() > 1) {
      std::this_thread::sleep_for(kLag);
    }
    const CTrace trace(TracePath());
    Promises promises = PromisesAt(ReadRequests(trace), trace.GetRecords().size());
    for (std::size_t node = 0; node < servers_.size() && broken_.empty(); ++node) {
      for (const std::string& line : CInspection::Look(*servers_[node], promises)) {
        Expect(false, "node " + std::to_string(node) + ": " + line);
      }
      promises.tasks.clear();  // they belong to the first node
    }
  }

  std::string TracePath() const { return folder_.GetPath() + "/marks.trace"; }
  std::string Logs() const {
    const std::string log = servers_.front()->GetLog();
    return log.substr(log.size() - std::min<std::size_t>(log.size(), 3000));
  }

  const CProveFolder folder_;
  CTraceMarks marks_{TracePath()};
  CMessageSwitch switch_{folder_.GetPath() + "/plan"};
  std::optional<CBackend> backend_;
  std::vector<std::unique_ptr<CTansyd>> servers_;
  std::vector<system_tests::Launch> launches_;
  std::mt19937_64 random_{Settings::Get().seed};
  std::size_t next_ = 1;
  std::chrono::seconds kill_patience_ = system_tests::kPatience;
  int disturbed_ = 0;
  std::string where_;
  std::vector<std::string> broken_;
};

std::string NameOf(const testing::TestParamInfo<Where>& item) {
  return item.param.name;
}

TEST_P(MessagesTest, EachMayBeTheLast) {
  DisturbEach();
}

INSTANTIATE_TEST_SUITE_P(OnPostgres, MessagesTest,
                         testing::Values(Where{"OneServer", EDatabase::kPostgres, EStorage::kFolder, 1},
                                         Where{"ThreeNodes", EDatabase::kPostgres, EStorage::kFolder, 3}),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(OnCeph, MessagesTest,
                         testing::Values(Where{"SqliteAndPool", EDatabase::kSqlite, EStorage::kPool, 1},
                                         Where{"PostgresAndPool", EDatabase::kPostgres, EStorage::kPool, 1},
                                         Where{"ThreeNodesAndPool", EDatabase::kPostgres, EStorage::kPool, 3}),
                         NameOf);

// A server whose messages do nothing of what the plan says.
class MessagePlantTest : public MessagesTest {
 protected:
  // Disturbs one kind of request, and gives what was broken.
  std::string DisturbWith(const std::string& plant) {
    launches_.front().environment["MESSAGE_PLANT"] = plant;
    kill_patience_ = std::chrono::seconds(3);
    EXPECT_TRUE(StartAll());
    Do(ERequest::kBucket, "b", "made");
    DisturbEach(Cases().front(), EMessage::kDieBefore);
    return Joined(broken_);
  }
};

TEST_P(MessagePlantTest, FindsAKillThatDoesNotHappen) {
  EXPECT_NE(DisturbWith("no-kill").find("the process was not killed"), std::string::npos);
}
TEST_P(MessagePlantTest, FindsThatNoMessageIsReached) {
  EXPECT_NE(DisturbWith("no-message").find("there was no message"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(OnPostgres, MessagePlantTest,
                         testing::Values(Where{"OneServer", EDatabase::kPostgres, EStorage::kFolder, 1}), NameOf);

// The database and its server are killed together, as when the machine of both ends.
class CrashOfBothTest : public MessagesTest {
 protected:
  // Gives what was broken.
  std::string CrashAfterAnswers(const std::string& durability, int rounds) {
    launches_.front().arguments.insert(launches_.front().arguments.end(), {"--durability", durability});
    EXPECT_TRUE(StartAll());
    Do(ERequest::kBucket, "b", "made");
    for (int round = 0; round < rounds && broken_.empty(); ++round) {
      for (int i = 0; i < 5; ++i) {
        Do(ERequest::kPut, "o" + std::to_string(i), Body(100));
      }
      Do(ERequest::kRemove, "o" + std::to_string(round % 5));
      backend_->CrashDatabase();
      First().Kill();
      backend_->StartDatabase();
      EXPECT_TRUE(First().Start(launches_.front()));
      where_ = "crash " + std::to_string(round);
      ExpectPromises();
    }
    return Joined(broken_);
  }
};

TEST_P(CrashOfBothTest, KeepsWhatWasAnswered) {
  EXPECT_EQ(CrashAfterAnswers("full", Settings::Get().IsLong() ? 100 : 3), "");
}

// With this durability the database answers before a commit is on the disk: an answer before its commit, which must be
// seen here, or nothing would be.
TEST_P(CrashOfBothTest, FindsAnAnswerBeforeItsCommit) {
  EXPECT_NE(CrashAfterAnswers("fast", 10), "");
}

INSTANTIATE_TEST_SUITE_P(OnPostgres, CrashOfBothTest,
                         testing::Values(Where{"OneServer", EDatabase::kPostgres, EStorage::kFolder, 1}), NameOf);

}  // namespace
}  // namespace prove

int main(int argc, char** argv) {
  return prove::RunProve(argc, argv, "*EachMayBeTheLast*:*KeepsWhatWasAnswered*");
}
