// Keys for which several names stand.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CatalogueFixture.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"

namespace Tansy::CloudStorage {
namespace {

using EAdded = CObjectStorageManager::EAdded;
using ERemoved = CObjectStorageManager::ERemoved;
using Texts = std::vector<std::string>;

constexpr const char* kCanonical = "a%21";  // the key "a!"
constexpr const char* kPlain = "a!";
constexpr const char* kEncodedTwice = "%61%21";

class ObjectStorageManagerKeys : public CatalogueFixture {
 protected:
  void SetUp() override { MakeBucket("bucket"); }

  // Stores under exactly this name, as the object protocol does.
  void Store(const std::string& name, const std::string& url) {
    ObjectInfo object = Object("bucket", name);
    object.url = url;
    EXPECT_TRUE(manager_.AddObject(object));
  }
  EAdded AddToKey(const std::string& name, const std::string& url, const CObjectStorageManager::MayAdd& may_add = {}) {
    ObjectInfo object = Object("bucket", name);
    object.url = url;
    std::atomic<bool> is_done{false};
    EAdded added = EAdded::kFailed;
    manager_.AddObject(object, {}, may_add, [&](EAdded result) {
      added = result;
      is_done = true;
    });
    while (!is_done) {
      std::this_thread::yield();
    }
    return added;
  }
  std::string UrlOfKey(const std::string& name) {
    ObjectInfo object;
    std::string attributes;
    return manager_.FindObjectOfKey(object, attributes, name, "bucket") ? object.url : "none";
  }
  // "name url" of each row, in the order of the names.
  Texts Rows() {
    return database_.Column("SELECT name || ' ' || url AS row FROM platform.local_object ORDER BY name", "row");
  }
  Texts InMemory() {
    std::set<std::string> shown;
    for (const char* const name : {kCanonical, kPlain, kEncodedTwice}) {
      ObjectInfo object;
      std::string attributes;
      if (manager_.FindObject(object, attributes, name, "bucket")) {
        shown.insert(object.name + " " + object.url);
      }
    }
    return {shown.begin(), shown.end()};
  }
};

TEST_F(ObjectStorageManagerKeys, TheCanonicalNameGoesFirst) {
  EXPECT_EQ(UrlOfKey(kCanonical), "none");
  Store(kPlain, "plain");
  EXPECT_EQ(UrlOfKey(kCanonical), "plain");
  Store(kEncodedTwice, "twice");
  EXPECT_EQ(UrlOfKey(kCanonical), "twice") << "the first in the order of texts";
  Store(kCanonical, "canonical");
  EXPECT_EQ(UrlOfKey(kCanonical), "canonical");
  EXPECT_EQ(UrlOfKey("a"), "none");
  EXPECT_EQ(UrlOfKey("a%20"), "none");
}

TEST_F(ObjectStorageManagerKeys, WhatTheKeyHasIsReplaced) {
  Store(kPlain, "first");
  EXPECT_EQ(AddToKey(kCanonical, "second"), EAdded::kAdded);
  EXPECT_EQ(Rows(), Texts{"a! second"});
  EXPECT_EQ(InMemory(), Rows());
  Store(kCanonical, "third");
  EXPECT_EQ(AddToKey(kCanonical, "fourth"), EAdded::kAdded);
  EXPECT_EQ(Rows(), (Texts{"a! second", "a%21 fourth"})) << "what the key has by now";
  EXPECT_EQ(InMemory(), Rows());
}

TEST_F(ObjectStorageManagerKeys, AConditionIsAboutWhatTheKeyHas) {
  Store(kPlain, "first");
  std::string seen = "not asked";
  const auto look = [&seen](const ObjectInfo* there, const std::string&) {
    seen = there == nullptr ? "none" : there->url;
    return false;
  };
  EXPECT_EQ(AddToKey(kCanonical, "second", look), EAdded::kRefused);
  EXPECT_EQ(seen, "first");
  EXPECT_EQ(manager_.RemoveKeys({kCanonical}, "bucket", look), ERemoved::kRefused);
  EXPECT_EQ(Rows(), Texts{"a! first"});
}

TEST_F(ObjectStorageManagerKeys, NoNameIsLeftOfAKeyThatIsRemoved) {
  Store(kPlain, "plain");
  Store(kCanonical, "canonical");
  Store(kEncodedTwice, "twice");
  Store("a", "another key");
  EXPECT_EQ(manager_.RemoveKeys({kCanonical, "none", kCanonical}, "bucket"), ERemoved::kRemoved);
  EXPECT_EQ(Rows(), Texts{"a another key"});
  EXPECT_EQ(InMemory(), Texts{});
  EXPECT_EQ(manager_.RemoveKeys({kCanonical}, "bucket"), ERemoved::kRemoved) << "it is not there";
  EXPECT_EQ(manager_.RemoveKeys({kCanonical}, "no-such-bucket"), ERemoved::kRemoved);
}

TEST_F(ObjectStorageManagerKeys, ManyKeysAreRemovedInOneStep) {
  Texts names;
  for (std::size_t i = 0; i < CObjectStorageManager::kKeysAtOnce; ++i) {
    names.push_back("key-" + std::to_string(i));
    Store(names.back(), "url");
  }
  const int before = database_.CountWrites();
  EXPECT_EQ(manager_.RemoveKeys(names, "bucket"), ERemoved::kRemoved);
  EXPECT_EQ(database_.CountWrites(), before + 1);
  EXPECT_EQ(Rows(), Texts{});
}

TEST_F(ObjectStorageManagerKeys, WhatTheDatabaseRefusesStays) {
  Store(kPlain, "plain");
  Store(kCanonical, "canonical");
  Store("b", "b");
  const Texts before = Rows();
  database_.FailStatementsWith("DELETE FROM platform.local_object ");
  EXPECT_EQ(manager_.RemoveKeys({"b", kCanonical}, "bucket"), ERemoved::kFailed);
  database_.Heal();
  EXPECT_EQ(Rows(), before);
  EXPECT_EQ(InMemory(), (Texts{"a! plain", "a%21 canonical"}));
  EXPECT_EQ(manager_.RemoveKeys({"b", kCanonical}, "bucket"), ERemoved::kRemoved) << "the keys are free again";
}

// A name that another writer stores meanwhile comes before the removal or after it.
TEST_F(ObjectStorageManagerKeys, ARemovalWaitsForWritersOfEveryName) {
  Store(kCanonical, "canonical");
  RunBeside(
      "INSERT INTO platform.local_object ", [&] { Store(kPlain, "plain"); },
      [&] { EXPECT_EQ(manager_.RemoveKeys({kCanonical}, "bucket"), ERemoved::kRemoved); });
  EXPECT_EQ(Rows(), Texts{});
  EXPECT_EQ(InMemory(), Texts{});
}

// Two who want to be the first, one by each name.
TEST_F(ObjectStorageManagerKeys, ANewKeyWaitsForWritersOfEveryName) {
  const auto if_new = [](const ObjectInfo* there, const std::string&) { return there == nullptr; };
  RunBeside(
      "INSERT INTO platform.local_object ", [&] { Store(kPlain, "plain"); },
      [&] { EXPECT_EQ(AddToKey(kCanonical, "new", if_new), EAdded::kRefused); });
  EXPECT_EQ(Rows(), Texts{"a! plain"});
}

// Groups that share keys, in different orders, beside writers and whoever locks all keys.
TEST_F(ObjectStorageManagerKeys, GroupsDoNotWaitForEachOther) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 40;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int round = 0; round < kRounds; ++round) {
        Texts names;
        for (int i = 0; i < 20; ++i) {
          names.push_back("key-" + std::to_string((i * (thread + 1) + round) % 23));
        }
        EXPECT_EQ(AddToKey(names.front(), "url"), EAdded::kAdded);
        EXPECT_EQ(manager_.RemoveKeys(names, "bucket"), ERemoved::kRemoved);
        if (round % 10 == 0) {
          bool is_empty = false;
          manager_.RemoveEmptyBucket("no-such-bucket", is_empty);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  Texts all;
  for (int i = 0; i < 23; ++i) {
    all.push_back("key-" + std::to_string(i));
  }
  EXPECT_EQ(manager_.RemoveKeys(all, "bucket"), ERemoved::kRemoved);
  EXPECT_EQ(Rows(), Texts{});
}

}  // namespace
}  // namespace Tansy::CloudStorage
