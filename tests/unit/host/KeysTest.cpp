#include "Keys.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "CatalogueFixture.h"
#include "KeySeal.h"
#include "TansyBase/TimeUtil.h"
#include "TansyCloudStorage/S3Server.h"

namespace Tansy::Host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::time_t kNow = 1793692800;  // 2026-11-03 08:00:00

class KeysTest : public CatalogueFixture {
 protected:
  void SetUp() override {
    CatalogueFixture::SetUp();
    TansyBase::TimeUtil::SetClock([] { return kNow; });
    keys_.Begin();
  }
  void TearDown() override {
    keys_.Stop();
    EXPECT_EQ(CloudStorage::SetS3Keys({}), 0);
    TansyBase::TimeUtil::SetClock(nullptr);
    CatalogueFixture::TearDown();
  }

  static Key NewKey(const std::string& name) {
    Key key;
    key.name = name;
    return key;
  }
  static Key Added(CKeys& keys, Key key) {
    const KeyOutcome outcome = keys.Add(key);
    EXPECT_EQ(outcome.problem, EKeyProblem::kNone) << outcome.words;
    return key;
  }
  static std::vector<std::string> Names(const CKeys& keys) {
    std::vector<std::string> names;
    for (const Key& key : keys.List()) {
      names.push_back(key.name);
    }
    return names;
  }
  // What another process finds, or this one after a start.
  static std::vector<Key> ReadAgain(const std::string& seal = "key-seal") {
    CKeys again(seal, false);
    again.Begin();
    return again.List();
  }
  static bool Eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
  }

  CKeys keys_{"key-seal", false};
};

TEST_F(KeysTest, AKeyIsKeptWithAllItsRights) {
  EXPECT_THAT(keys_.List(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists("key-seal")) << "nobody needs it yet";
  Key guest = NewKey("guest");
  guest.buckets = {"photos", "b\"'\\ucket"};
  guest.read_only = true;
  guest.expires = kNow + 60;
  guest = Added(keys_, guest);
  EXPECT_EQ(guest.access_key.size(), 20U);
  EXPECT_EQ(guest.secret_key.size(), 40U);
  Added(keys_, NewKey("all"));
  for (const std::vector<Key>& keys : {keys_.List(), ReadAgain()}) {
    ASSERT_EQ(keys.size(), 2U);
    EXPECT_EQ(keys[0].name, "all");
    EXPECT_THAT(keys[0].buckets, IsEmpty());
    EXPECT_FALSE(keys[0].read_only);
    EXPECT_EQ(keys[0].expires, 0);
    EXPECT_EQ(keys[1].name, "guest");
    EXPECT_EQ(keys[1].access_key, guest.access_key);
    EXPECT_EQ(keys[1].secret_key, guest.secret_key);
    EXPECT_THAT(keys[1].buckets, ElementsAre("photos", "b\"'\\ucket"));
    EXPECT_TRUE(keys[1].read_only);
    EXPECT_EQ(keys[1].created, kNow);
    EXPECT_EQ(keys[1].expires, kNow + 60);
  }
}

TEST_F(KeysTest, TheDatabaseTellsNoSecret) {
  const Key key = Added(keys_, NewKey("guest"));
  const std::string row = Answer("SELECT name || access_key || sealed AS value FROM platform.access_keys");
  EXPECT_THAT(row, HasSubstr(key.access_key));
  EXPECT_EQ(row.find(key.secret_key), std::string::npos);
}

TEST_F(KeysTest, AKeyIsRemoved) {
  Added(keys_, NewKey("one"));
  Added(keys_, NewKey("two"));
  EXPECT_EQ(keys_.Remove("none").problem, EKeyProblem::kMissing);
  EXPECT_EQ(keys_.Remove("one").problem, EKeyProblem::kNone);
  EXPECT_THAT(Names(keys_), ElementsAre("two"));
  EXPECT_EQ(keys_.Remove("one").problem, EKeyProblem::kMissing);
  EXPECT_EQ(ReadAgain().size(), 1U);
  Added(keys_, NewKey("one"));
}

TEST_F(KeysTest, OneNameStandsForOneKey) {
  const Key key = Added(keys_, NewKey("guest"));
  Key again = NewKey("guest");
  EXPECT_EQ(keys_.Add(again).problem, EKeyProblem::kThere);
  EXPECT_EQ(keys_.Find(key.access_key)->secret_key, key.secret_key);
}

TEST_F(KeysTest, KeysThatMakeNoSenseAreRefused) {
  for (const std::string& name : {std::string(), std::string(65, 'x'), std::string("a b"), std::string("a/b"),
                                  std::string("a\nb"), std::string("\xc3\xa4")}) {
    Key key = NewKey(name);
    EXPECT_EQ(keys_.Add(key).problem, EKeyProblem::kWrong) << name;
  }
  for (const std::string& bucket : {std::string(), std::string("a b"), std::string("a/b"), std::string(256, 'x')}) {
    Key key = NewKey("guest");
    key.buckets = {"photos", bucket};
    EXPECT_EQ(keys_.Add(key).problem, EKeyProblem::kWrong) << bucket;
  }
  for (const std::int64_t expires : {std::int64_t{-1}, std::int64_t{1}, std::int64_t{kNow}}) {
    Key key = NewKey("guest");
    key.expires = expires;
    EXPECT_EQ(keys_.Add(key).problem, EKeyProblem::kWrong) << expires;
  }
  EXPECT_THAT(keys_.List(), IsEmpty());
}

TEST_F(KeysTest, AKeyIsFoundWhileItCounts) {
  Key key = NewKey("guest");
  key.expires = kNow + 1;
  key = Added(keys_, key);
  EXPECT_EQ(keys_.Find(key.access_key)->name, "guest");
  EXPECT_FALSE(keys_.Find("other").has_value());
  TansyBase::TimeUtil::SetClock([] { return kNow + 1; });
  EXPECT_FALSE(keys_.Find(key.access_key).has_value());
}

// As with a catalogue that was brought here without the file, and with one that somebody has written to.
TEST_F(KeysTest, WhatTheSealDoesNotOpenIsNoKeyAndIsNotLostEither) {
  const Key key = Added(keys_, NewKey("guest"));
  std::filesystem::rename("key-seal", "elsewhere");
  CKeys without("key-seal", false);
  without.Begin();
  EXPECT_THAT(Names(without), ElementsAre("guest"));
  EXPECT_FALSE(without.Find(key.access_key).has_value());
  Key other = NewKey("other");
  EXPECT_EQ(without.Add(other).problem, EKeyProblem::kFailed);
  EXPECT_FALSE(std::filesystem::exists("key-seal")) << "another seal would never open the keys again";
  std::filesystem::rename("elsewhere", "key-seal");
  EXPECT_TRUE(Eventually([&] {
    without.Wake();
    return without.Find(key.access_key).has_value();
  })) << "the file may come back while the server runs";
  EXPECT_EQ(without.Add(other).problem, EKeyProblem::kNone);

  Run("UPDATE platform.access_keys SET sealed = (SELECT sealed FROM platform.access_keys WHERE name = 'other') WHERE "
      "name = 'guest'");
  EXPECT_EQ(ReadAgain().front().secret_key, "") << "rights of another key";
}

// Two nodes each made a seal of their own, and an operator copies the one that is right.
TEST_F(KeysTest, ASealThatIsReplacedIsReadAgain) {
  Added(keys_, NewKey("old"));
  EXPECT_EQ(keys_.Remove("old").problem, EKeyProblem::kNone);
  CKeys node("seal-of-node", true);
  node.Begin();
  const Key guest = Added(node, NewKey("guest"));
  EXPECT_EQ(keys_.Remove("none").problem, EKeyProblem::kMissing) << "it reads the keys";
  EXPECT_THAT(Names(keys_), ElementsAre("guest"));
  EXPECT_FALSE(keys_.Find(guest.access_key).has_value());
  std::filesystem::copy_file("seal-of-node", "key-seal", std::filesystem::copy_options::overwrite_existing);
  EXPECT_TRUE(Eventually([&] {
    keys_.Wake();
    return keys_.Find(guest.access_key).has_value();
  }));
  const Key later = Added(keys_, NewKey("later"));
  EXPECT_EQ(ReadAgain().back().secret_key, later.secret_key);
}

TEST_F(KeysTest, ASealThatIsGoneWhileAnotherKeyDoesNotOpenTakesNoKeyAway) {
  const Key mine = Added(keys_, NewKey("mine"));
  Run("INSERT INTO platform.access_keys (name, access_key, sealed) VALUES ('strange', 'AK', '1:none')");
  std::filesystem::remove("key-seal");
  EXPECT_EQ(keys_.Remove("none").problem, EKeyProblem::kMissing);
  EXPECT_THAT(Names(keys_), ElementsAre("mine", "strange"));
  EXPECT_TRUE(keys_.Find(mine.access_key).has_value());
}

TEST_F(KeysTest, NoKeyIsSealedWhileAnotherOneDoesNotOpen) {
  Added(keys_, NewKey("guest"));
  // The file of the first node does not open what the second one has.
  CKeys node("seal-of-node", true);
  node.Begin();
  std::filesystem::rename("key-seal", "elsewhere");
  EXPECT_EQ(keys_.Remove("guest").problem, EKeyProblem::kNone);
  const Key theirs = Added(node, NewKey("theirs"));
  std::filesystem::rename("elsewhere", "key-seal");
  Key other = NewKey("other");
  const KeyOutcome outcome = keys_.Add(other);
  EXPECT_EQ(outcome.problem, EKeyProblem::kFailed);
  EXPECT_THAT(outcome.words, HasSubstr("key theirs cannot be opened"));
  EXPECT_THAT(Names(keys_), ElementsAre("theirs"));
  EXPECT_TRUE(node.Find(theirs.access_key).has_value());
}

// The next start has no other seal than the one in the file.
TEST_F(KeysTest, NoKeyIsSealedWithASealThatIsNotInTheFile) {
  const Key guest = Added(keys_, NewKey("guest"));
  std::string error;
  ASSERT_TRUE(CKeySeal::Make("key-seal", error).has_value()) << error;
  Key other = NewKey("other");
  EXPECT_EQ(keys_.Add(other).problem, EKeyProblem::kFailed);
  EXPECT_THAT(Names(keys_), ElementsAre("guest"));
  EXPECT_TRUE(keys_.Find(guest.access_key).has_value()) << "it is served as before";
  EXPECT_EQ(keys_.Remove("guest").problem, EKeyProblem::kNone);
  Added(keys_, NewKey("other"));
  EXPECT_NE(ReadAgain().front().secret_key, "");
  EXPECT_EQ(keys_.Remove("other").problem, EKeyProblem::kNone);
  std::filesystem::remove("key-seal");
  Added(keys_, NewKey("third"));
  EXPECT_NE(ReadAgain().front().secret_key, "");
}

// Another node makes its first key between the look at the rows and the row that is added here.
TEST_F(KeysTest, OfTwoFirstKeysWithTwoSealsNoneIsKeptHere) {
  if (Tests::IsOnPostgresql()) {
    Tests::CPostgresServer::Shared().Run(
        "CREATE FUNCTION platform.beside() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN IF NEW.name = 'mine' THEN "
        "INSERT INTO platform.access_keys (name, access_key, sealed) VALUES ('theirs', 'AK', '1:none'); END IF; "
        "RETURN NEW; END $$; CREATE TRIGGER beside BEFORE INSERT ON platform.access_keys FOR EACH ROW EXECUTE "
        "FUNCTION platform.beside()");
  } else {
    Run("CREATE TRIGGER platform.beside BEFORE INSERT ON access_keys WHEN NEW.name = 'mine' BEGIN INSERT INTO "
        "access_keys (name, access_key, sealed) VALUES ('theirs', 'AK', '1:none'); END");
  }
  Key mine = NewKey("mine");
  const KeyOutcome outcome = keys_.Add(mine);
  EXPECT_EQ(outcome.problem, EKeyProblem::kFailed);
  EXPECT_THAT(outcome.words, HasSubstr("key theirs cannot be opened"));
  EXPECT_THAT(Names(keys_), ElementsAre("theirs"));
}

TEST_F(KeysTest, ChangesOfAnotherProcessCountSoon) {
  CKeys other("key-seal", true);
  other.Begin();
  const Key key = Added(keys_, NewKey("guest"));
  EXPECT_TRUE(Eventually([&] {
    other.Wake();
    return other.Find(key.access_key).has_value();
  }));
  EXPECT_EQ(keys_.Remove("guest").problem, EKeyProblem::kNone);
  EXPECT_TRUE(Eventually([&] {
    other.Wake();
    return !other.Find(key.access_key).has_value();
  }));
}

TEST_F(KeysTest, ADatabaseThatRefusesLeavesTheKeysAsTheyAre) {
  const Key key = Added(keys_, NewKey("guest"));
  RefuseRows("access_keys");
  Key other = NewKey("other");
  EXPECT_EQ(keys_.Add(other).problem, EKeyProblem::kFailed);
  TakeRowsAgain();
  EXPECT_THAT(Names(keys_), ElementsAre("guest"));
  EXPECT_TRUE(keys_.Find(key.access_key).has_value());
  Added(keys_, NewKey("other"));
}

TEST_F(KeysTest, ManyAtOnceMakeOneKeyOfAName) {
  std::vector<std::future<EKeyProblem>> outcomes;
  for (int i = 0; i < 16; ++i) {
    outcomes.push_back(std::async(std::launch::async, [this, i] {
      Key key = NewKey("guest" + std::to_string(i % 4));
      return keys_.Add(key).problem;
    }));
  }
  const auto made = std::count_if(outcomes.begin(), outcomes.end(),
                                  [](std::future<EKeyProblem>& each) { return each.get() == EKeyProblem::kNone; });
  EXPECT_EQ(made, 4);
  EXPECT_THAT(Names(keys_), ElementsAre("guest0", "guest1", "guest2", "guest3"));
}

TEST_F(KeysTest, WorkRunsInOrderOnItsThread) {
  std::promise<std::vector<int>> done;
  std::vector<int> ran;
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(keys_.Post([&ran, i] { ran.push_back(i); }));
  }
  EXPECT_TRUE(keys_.Post([&] { done.set_value(ran); }));
  EXPECT_THAT(done.get_future().get(), ElementsAre(0, 1, 2));
}

// With a database that does not answer each of them would take long.
TEST_F(KeysTest, NothingMoreIsDoneOnceItStops) {
  CKeys shared("key-seal", true);
  shared.Begin();
  std::promise<void> all_wait;
  int later = 0;
  EXPECT_TRUE(shared.Post([&] {
    all_wait.get_future().wait();
    shared.Stop();
    Added(keys_, NewKey("guest"));
  }));
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(shared.Post([&] { ++later; }));
  }
  all_wait.set_value();
  EXPECT_TRUE(Eventually([&] { return !keys_.List().empty(); }));
  shared.Stop();
  EXPECT_EQ(later, 0);
  EXPECT_THAT(shared.List(), IsEmpty()) << "nor does it look what others have changed";
}

TEST_F(KeysTest, NoMoreThanAHundredWait) {
  std::promise<void> begun;
  std::promise<void> release;
  EXPECT_TRUE(keys_.Post([&] {
    begun.set_value();
    release.get_future().wait();
  }));
  begun.get_future().wait();
  std::atomic<int> done{0};
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(keys_.Post([&] { ++done; })) << i;
  }
  EXPECT_FALSE(keys_.Post([&] { ++done; }));
  release.set_value();
  EXPECT_TRUE(Eventually([&] { return done == 100; }));
  EXPECT_TRUE(keys_.Post([&] { ++done; })) << "there is room again";
  EXPECT_TRUE(Eventually([&] { return done == 101; }));
}

}  // namespace
}  // namespace Tansy::Host
