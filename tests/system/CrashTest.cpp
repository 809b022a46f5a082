// kill -9 at any instant: what was acknowledged is there and whole. What was not acknowledged is there and whole, or it
// is not there.
#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "support/Program.h"
#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::AnyOf;
using testing::HasSubstr;

class CrashTest : public TansydTest {
 protected:
  // What the server has promised, and what may or may not have happened. Versions of a key are told by their bytes.
  struct Expected {
    std::string acknowledged;  // empty: never
    std::string attempted;     // what was under way when the server died; empty: nothing
    bool removing = false;
  };

  static std::string BytesOf(const std::string& key, int version, std::size_t size) {
    return key + "#" + std::to_string(version) + "#" +
           RandomBytes(size, std::hash<std::string>{}(key) + static_cast<std::size_t>(version));
  }

  // Writes, overwrites and removes objects of its own until the server stops answering: what then became of the last
  // request is not known.
  void RunClient(int number, int round, std::atomic<bool>& stop) {
    std::mt19937 random(static_cast<unsigned>(number * 1000 + round));
    while (!stop) {
      const std::string key = "c" + std::to_string(number) + "-" + std::to_string(random() % 8);
      Expected state;
      {
        const std::lock_guard lock(mutex_);
        state = expected_[key];
      }
      const bool remove = !state.acknowledged.empty() && random() % 5 == 0;
      const std::size_t size = random() % 12 == 0 ? 11 * 1024 * 1024 : 10 + random() % 60000;
      state.removing = remove;
      state.attempted = remove ? "" : BytesOf(key, ++version_, size);
      Note(key, state);
      const Reply reply =
          remove ? Send("DELETE", "/b/" + key + "?deletefile") : Send("PUT", "/b/" + key, state.attempted);
      if (reply.status != 200) {
        EXPECT_EQ(reply.status, 0) << Outcome(reply);
        return;
      }
      state.acknowledged = remove ? "" : state.attempted;
      state.attempted.clear();
      state.removing = false;
      Note(key, state);
      ++acknowledged_count_;
    }
  }
  void Note(const std::string& key, const Expected& state) {
    const std::lock_guard lock(mutex_);
    expected_[key] = state;
  }

  // Looks at every key after a restart and takes over what turned out to be true.
  void Verify() {
    for (auto& [key, state] : expected_) {
      const Reply reply = Send("GET", "/b/" + key);
      const bool is_missing = Outcome(reply) == "404 NoSuchKey";
      const bool is_acknowledged = reply.status == 200 && reply.body == state.acknowledged;
      const bool is_attempted = reply.status == 200 && !state.attempted.empty() && reply.body == state.attempted;
      // A removal frees the bytes before it takes the row away.
      const bool is_half_removed = state.removing && Outcome(reply) == "500 ServerInternalError";
      const bool may_be_missing = state.acknowledged.empty() || state.removing;
      EXPECT_TRUE(is_acknowledged || is_attempted || is_half_removed || (is_missing && may_be_missing))
          << key << ": " << Outcome(reply) << ", " << reply.body.size() << " bytes; acknowledged "
          << state.acknowledged.size() << ", attempted " << state.attempted.size();
      if (is_half_removed) {
        EXPECT_EQ(Outcome(Send("DELETE", "/b/" + key + "?deletefile")), "200") << "it can be removed again";
        state.acknowledged.clear();
      } else {
        state.acknowledged = reply.status == 200 ? reply.body : "";
      }
      state.attempted.clear();
      state.removing = false;
    }
  }

  std::mutex mutex_;
  std::map<std::string, Expected> expected_;
  std::atomic<int> version_{0};
  std::atomic<int> acknowledged_count_{0};
};

class KillUnderLoadTest : public CrashTest, public testing::WithParamInterface<const char*> {};

TEST_P(KillUnderLoadTest, AcknowledgedObjectsSurvive) {
  // A killed process loses nothing that the operating system has, so the promise holds for both kinds of durability.
  Launch launch;
  launch.arguments = {"--durability", GetParam()};
  ASSERT_TRUE(server_.Start(launch));
  MakeBucket("b");
  for (int round = 0; round < 5; ++round) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> clients;
    for (int i = 0; i < 6; ++i) {
      clients.emplace_back([this, i, round, &stop] { RunClient(i, round, stop); });
    }
    // The server is killed at a different moment each time, and not before something was done.
    const int goal = acknowledged_count_ + 20 + round * 7;
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (acknowledged_count_ < goal && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_GE(acknowledged_count_, goal);
    server_.Kill();
    stop = true;
    for (std::thread& client : clients) {
      client.join();
    }
    ASSERT_TRUE(server_.Start(launch));
    Verify();
  }
  ASSERT_TRUE(server_.Stop());

  Launch check;
  check.with_ports = false;
  check.arguments = {"--check", "--repair", "--force"};
  const Ended repaired = server_.RunToEnd(check);
  EXPECT_EQ(repaired.code, 0) << repaired.out;
  EXPECT_THAT(repaired.out, HasSubstr(" 0 damaged"));
  ASSERT_TRUE(server_.Start(launch));
  Verify();
  for (const auto& [key, state] : expected_) {
    EXPECT_EQ(Send("GET", "/b/" + key).status, state.acknowledged.empty() ? 404 : 200) << key;
  }
}

INSTANTIATE_TEST_SUITE_P(Durability, KillUnderLoadTest, testing::Values("full", "fast"),
                         [](const auto& item) { return std::string(item.param); });

TEST_F(CrashTest, AStreamedUploadThatIsCutShortIsInvisibleAndItsBytesAreGivenBack) {
  ASSERT_TRUE(server_.Start());
  MakeBucket("b");
  Put("/b/kept", "kept");
  const auto upload = CConnection::Open(server_.GetObjectPort());
  ASSERT_NE(upload, nullptr);
  const Request request = Signed({"PUT", "/b/cut", {{"Content-Length", "40000000"}}, ""});
  ASSERT_TRUE(upload->Send(Serialize(request, server_.GetObjectPort())));
  ASSERT_TRUE(upload->Send(std::string(25000000, 'x')));
  ASSERT_TRUE(WaitUntil([this] { return CountFiles(server_.Data("objects/fs01")) == 1; }));
  server_.Kill();
  Launch check;
  check.with_ports = false;
  check.arguments = {"--check"};
  const Ended checked = server_.RunToEnd(check);
  EXPECT_EQ(checked.code, 3);
  EXPECT_THAT(checked.out, AllOf(HasSubstr("orphan fs01/"), HasSubstr(" 1 orphans ("), HasSubstr(" 0 damaged")));
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Outcome(Send("GET", "/b/cut")), "404 NoSuchKey");
  EXPECT_TRUE(WaitUntil([this] { return CountFiles(server_.Data("objects/fs01")) == 0; }));
  EXPECT_EQ(Get("/b/kept"), "kept");
}

// kill -9 in front of every single change to a file that small objects make: a new one, one that replaces, a removal.
class SmallObjectCrashTest : public CrashTest, public testing::WithParamInterface<const char*> {
 protected:
  static constexpr int kMostSteps = 60;

  void SetUp() override {
    launch_.program = TANSYD_THAT_DIES;
    launch_.arguments = {"--durability", GetParam()};
    launch_.environment = {{"DIE_WHEN", temp_.GetPath() + "/when"}};
    ASSERT_TRUE(server_.Start(launch_));
    MakeBucket("b");
  }
  // Sends the request to a server that ends in front of the change of this number. Returns false when there are fewer
  // changes than that.
  bool DiesAt(int step, const std::string& method, const std::string& target, const std::string& body) {
    std::ofstream(temp_.GetPath() + "/when") << step;
    const Reply reply = Send(method, target, body);
    std::filesystem::remove(temp_.GetPath() + "/when");
    EXPECT_TRUE(reply.status == 200 || reply.status == 0) << Outcome(reply);
    acknowledged_ = reply.status == 200;
    const bool is_through = acknowledged_ && server_.IsRunning();
    server_.Kill();
    EXPECT_TRUE(server_.Start(launch_));
    return !is_through;
  }
  std::string Now(const std::string& target) {
    const Reply reply = Send("GET", target);
    return reply.status == 200 ? reply.body : Outcome(reply);
  }
  // What is there afterwards is `before` or `after`, and `after` when the request was answered.
  template <typename Prepare>
  void DieEverywhere(const std::string& method, const std::string& before, const std::string& after, Prepare prepare) {
    int step = 1;
    for (bool died = true; died && !HasFailure(); ++step) {
      ASSERT_LT(step, kMostSteps) << "no request goes through";
      SCOPED_TRACE(method + ", in front of change " + std::to_string(step));
      const std::string target = "/b/" + method + std::to_string(step) + "-" + std::to_string(after.size());
      prepare(target);
      died = DiesAt(step, method, target + (method == "DELETE" ? "?deletefile" : ""), method == "PUT" ? after : "");
      const std::string now = Now(target);
      EXPECT_TRUE(now == after || (!acknowledged_ && now == before)) << now;
      ++(now == after ? seen_after_ : seen_before_);
      Put(target, "again");
      EXPECT_EQ(Get(target), "again");
    }
    EXPECT_GE(step, 3) << "the bytes and the row";
  }

  Launch launch_;
  bool acknowledged_ = false;
  int seen_before_ = 0;
  int seen_after_ = 0;
};

TEST_P(SmallObjectCrashTest, EveryChangeMayBeTheLast) {
  Put("/b/other", "other");
  const auto put_old = [this](const std::string& target) { Put(target, "old"); };
  DieEverywhere("PUT", "404 NoSuchKey", "new bytes", [](const std::string&) {});
  DieEverywhere("PUT", "old", "in the place of the old", put_old);
  DieEverywhere("DELETE", "old", "404 NoSuchKey", put_old);
  EXPECT_GT(seen_before_, 0);
  EXPECT_GT(seen_after_, 0);
  EXPECT_EQ(Get("/b/other"), "other");
  ASSERT_TRUE(server_.Stop());
  Launch check;
  check.with_ports = false;
  check.arguments = {"--check", "--repair", "--force"};
  const Ended checked = server_.RunToEnd(check);
  EXPECT_EQ(checked.code, 0) << checked.out;
  EXPECT_THAT(checked.out, HasSubstr(" 0 damaged"));
  ASSERT_TRUE(server_.Start(launch_));
  EXPECT_EQ(Get("/b/other"), "other");
}

INSTANTIATE_TEST_SUITE_P(Durability, SmallObjectCrashTest, testing::Values("full", "fast"),
                         [](const auto& item) { return std::string(item.param); });

TEST_F(CrashTest, BucketsSurviveToo) {
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(server_.Start());
    MakeBucket("b" + std::to_string(i));
    server_.Kill();
  }
  ASSERT_TRUE(server_.Start());
  EXPECT_THAT(Get("/"), HasSubstr("<TotalNum>5</TotalNum>"));
}

}  // namespace
}  // namespace system_tests
