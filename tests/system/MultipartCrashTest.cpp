// kill -9 in front of every single change that a completion makes to a file, one after another: the bytes of the first
// part, their way to the disk, the file of the first part, the object's row, the task's rows.
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/MultipartFixture.h"

namespace system_tests {
namespace {

using testing::HasSubstr;

// A completion has fewer steps than this. Without the limit, the search might go on for ever.
constexpr int kMostSteps = 60;
constexpr int kMostRounds = 10;

class MultipartCrashTest : public MultipartFixture, public testing::WithParamInterface<const char*> {
 protected:
  // What a key holds before the completion and after it.
  struct Target {
    std::string key;
    std::string before;  // empty: there is no such object
    std::string task;
    std::vector<std::string> parts;
  };

  void SetUp() override {
    launch_.program = TANSYD_THAT_DIES;
    launch_.arguments = {"--durability", GetParam()};
    launch_.environment = {{"DIE_WHEN", WhenPath()}};
    ASSERT_TRUE(server_.Start(launch_));
    MakeBucket("b");
    Put("/b/whole", whole_);
    Upload("parted", parted_);
  }
  std::string WhenPath() const { return temp_.GetPath() + "/when"; }
  // Lets the server end in front of the n-th change, counted from now on.
  void LetDieAt(int step) { std::ofstream(WhenPath()) << step; }

  // A task with all its parts, over an object that is there already or not.
  Target MakeTarget(int step, bool is_there) {
    Target target;
    target.key = (is_there ? "old-" : "new-") + std::to_string(round_) + "-" + std::to_string(step);
    target.parts = Parts(3, 5000, 700, static_cast<std::uint64_t>(step) * 2 + (is_there ? 1 : 0));
    if (is_there) {
      target.before = "what " + target.key + " was before";
      Put("/b/" + target.key, target.before);
    }
    target.task = Begin(target.key);
    EXPECT_TRUE(SendParts(target.key, target.task, target.parts));
    return target;
  }

  // True when the completion went through without the server's end. Such a server is not to be asked anything more: it
  // goes on counting.
  bool CompletesAt(const Target& target, int step) {
    LetDieAt(step);
    const std::string outcome = Complete(target.key, target.task, target.parts);
    std::filesystem::remove(WhenPath());
    EXPECT_TRUE(outcome == "200" || outcome == "0") << outcome;
    // Answered, the object is there for good, even if the server ends right behind the answer.
    acknowledged_ = outcome == "200";
    return acknowledged_ && server_.IsRunning();
  }

  // After the restart: the old object or the new one, never a mixture.
  void ExpectOneOrTheOther(const Target& target) {
    const Reply reply = Send("GET", "/b/" + target.key);
    const bool is_new = reply.status == 200 && reply.body == Joined(target.parts);
    const bool is_old =
        target.before.empty() ? Outcome(reply) == "404 NoSuchKey" : reply.status == 200 && reply.body == target.before;
    EXPECT_TRUE(is_new || is_old) << target.key << ": " << Outcome(reply) << ", " << reply.body.size() << " bytes";
    EXPECT_TRUE(is_new || !acknowledged_) << target.key;
    ++(is_new ? seen_new_ : seen_old_);
    ExpectTask(target, is_new);
    EXPECT_EQ(Get("/b/" + target.key) == Joined(target.parts), true) << target.key;
  }
  // No part's row is lost before the object is there, so a client that completes once more gets it; and none is left
  // once it is there.
  void ExpectTask(const Target& target, bool is_new) {
    const Reply listing = Send("GET", "/b/" + target.key + "?upload_id=" + target.task);
    const bool is_listed = listing.status == 200;
    EXPECT_NE(is_listed, is_new) << Outcome(listing);
    if (is_listed) {
      EXPECT_EQ(XmlValue(listing.body, "TotalNum"), "3");
    }
    EXPECT_EQ(Complete(target.key, target.task, target.parts), is_listed ? "200" : "400 InvalidXmlContent");
  }
  void ExpectOthersUntouched() {
    EXPECT_EQ(Get("/b/whole"), whole_);
    EXPECT_EQ(Get("/b/parted") == Joined(parted_), true);
    for (const Target& done : done_) {
      EXPECT_EQ(Get("/b/" + done.key) == Joined(done.parts), true) << done.key;
    }
  }

  // Ends the server in front of each change in turn; gives the number of them.
  int DieEverywhere(bool is_there) {
    for (int step = 1; step <= kMostSteps && !HasFailure(); ++step) {
      SCOPED_TRACE("in front of change " + std::to_string(step));
      Target target = MakeTarget(step, is_there);
      const bool done = CompletesAt(target, step);
      if (done) {
        server_.Kill();
      } else {
        EXPECT_EQ(server_.WaitForEnd().code, 128 + SIGKILL);
      }
      EXPECT_TRUE(server_.Start(launch_));
      if (!done) {
        ExpectOneOrTheOther(target);
        Upload(target.key, target.parts);  // the upload can begin again
      }
      done_.push_back(std::move(target));
      ExpectOthersUntouched();
      if (done) {
        return step - 1;
      }
    }
    ADD_FAILURE() << "no completion goes through";
    return kMostSteps;
  }

  Launch launch_;
  const std::string whole_ = RandomBytes(20000, 1);
  const std::vector<std::string> parted_ = Parts(3, 8000, 300, 2);
  std::vector<Target> done_;
  bool acknowledged_ = false;
  int round_ = 0;
  int seen_old_ = 0;
  int seen_new_ = 0;
};

TEST_P(MultipartCrashTest, EveryChangeOfACompletionMayBeTheLast) {
  for (const bool is_there : {false, true}) {
    SCOPED_TRACE(is_there ? "over an object" : "of a new object");
    seen_old_ = 0;
    seen_new_ = 0;
    // Other threads change files too, so the number of the change behind the object differs: a round may miss it.
    for (int tries = 0; tries < kMostRounds && seen_new_ == 0 && !HasFailure(); ++tries, ++round_) {
      // The bytes, the first part's file, the object's row, the task's rows, each at least once.
      EXPECT_GE(DieEverywhere(is_there), 4);
    }
    EXPECT_GT(seen_old_, 0) << "no end before the object";
    EXPECT_GT(seen_new_, 0) << "no end behind the object";
  }
  ASSERT_TRUE(server_.Stop());
  Launch check;
  check.with_ports = false;
  check.arguments = {"--check", "--repair", "--force"};
  const Ended checked = server_.RunToEnd(check);
  EXPECT_EQ(checked.code, 0) << checked.out;
  EXPECT_THAT(checked.out, HasSubstr(" 0 damaged"));
  ASSERT_TRUE(server_.Start(launch_));
  ExpectOthersUntouched();
}

// The same for a part on its way into the object: the one before it stays acknowledged, and the task can be finished.
TEST_P(MultipartCrashTest, EveryChangeOfAPartMayBeTheLast) {
  int changes = 0;
  for (int step = 1; step <= kMostSteps && !HasFailure(); ++step) {
    SCOPED_TRACE("in front of change " + std::to_string(step));
    const std::string key = "part-" + std::to_string(step);
    const std::vector<std::string> parts = Parts(2, 5000, 700, static_cast<std::uint64_t>(step));
    const std::string task = Begin(key);
    ASSERT_EQ(SendPart(key, task, 2, parts[1]), "200");
    LetDieAt(step);
    const std::string outcome = SendPart(key, task, 1, parts[0]);
    std::filesystem::remove(WhenPath());
    EXPECT_TRUE(outcome == "200" || outcome == "0") << outcome;
    const bool done = outcome == "200" && server_.IsRunning();
    server_.Kill();
    ASSERT_TRUE(server_.Start(launch_));

    const std::string listing = List(key, task);
    EXPECT_THAT(listing, HasSubstr("<PartNumber>2</PartNumber><PartSize>700</PartSize>"));
    const bool is_recorded = listing.find("<PartNumber>1</PartNumber><PartSize>5000</PartSize>") != std::string::npos;
    EXPECT_TRUE(is_recorded || listing.find("<PartNumber>1</PartNumber><PartSize>0</PartSize>") != std::string::npos)
        << listing;
    EXPECT_TRUE(is_recorded || outcome != "200");
    EXPECT_EQ(Outcome(Send("GET", "/b/" + key)), "404 NoSuchKey");
    ASSERT_TRUE(SendParts(key, task, parts));
    EXPECT_EQ(Complete(key, task, parts), "200");
    EXPECT_EQ(Get("/b/" + key) == Joined(parts), true);
    ExpectOthersUntouched();
    if (done) {
      changes = step - 1;
      break;
    }
  }
  EXPECT_GE(changes, 2) << "the bytes and the row";
}

INSTANTIATE_TEST_SUITE_P(Durability, MultipartCrashTest, testing::Values("full", "fast"),
                         [](const auto& item) { return std::string(item.param); });

}  // namespace
}  // namespace system_tests
