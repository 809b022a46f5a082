// Attributes of objects, and conditions on which objects are added.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "CatalogueFixture.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"

namespace Tansy::CloudStorage {
namespace {

using EAdded = CObjectStorageManager::EAdded;
using Texts = std::vector<std::string>;

class ObjectStorageManagerAttributes : public CatalogueFixture {
 protected:
  void SetUp() override { MakeBucket("bucket"); }

  // Adds or replaces an object and waits until it is there.
  EAdded Add(
      const ObjectInfo& object, const std::string& attributes,
      const CObjectStorageManager::MayAdd& may_add = [](const ObjectInfo*, const std::string&) { return true; }) {
    std::atomic<bool> is_done{false};
    EAdded added = EAdded::kFailed;
    manager_.AddObject(object, {{}, attributes}, may_add, [&](EAdded result) {
      added = result;
      is_done = true;
    });
    while (!is_done) {
      std::this_thread::yield();
    }
    return added;
  }
  ObjectInfo At(const std::string& url, const std::string& name = "key") {
    ObjectInfo object = Object("bucket", name);
    object.url = url;
    return object;
  }

  std::string InMemory(const std::string& name = "key") {
    ObjectInfo object;
    std::string attributes;
    return manager_.FindObject(object, attributes, name, "bucket") ? attributes : "no object";
  }
  Texts InDatabase() {
    Texts rows;
    EXPECT_TRUE(CObjectServerSession::QueryAttributes([&rows](const ObjectInfo& object, std::string_view attributes) {
      rows.push_back(object.bucket_name + "/" + object.name + " " + object.url + " " + std::string(attributes));
    }));
    return rows;
  }
  // Rows of attributes whether their object is there or not.
  std::size_t CountRows() {
    return database_.Column("SELECT * FROM platform.local_object_attributes", "attributes").size();
  }
};

TEST_F(ObjectStorageManagerAttributes, ComeWithTheObject) {
  EXPECT_EQ(Add(At("one"), "it's \"one\""), EAdded::kAdded);
  EXPECT_EQ(InMemory(), "it's \"one\"");
  EXPECT_EQ(InDatabase(), Texts{"bucket/key one it's \"one\""});
}

TEST_F(ObjectStorageManagerAttributes, BelongToTheBytes) {
  Add(At("one"), "first");
  EXPECT_EQ(Add(At("two"), "second"), EAdded::kAdded);
  EXPECT_EQ(InMemory(), "second");
  EXPECT_EQ(InDatabase(), Texts{"bucket/key two second"});
  ObjectInfo plain = At("three");
  ASSERT_TRUE(manager_.AddObject(plain));
  EXPECT_EQ(InMemory(), "");
  EXPECT_EQ(CountRows(), 0U);
}

TEST_F(ObjectStorageManagerAttributes, GoWithTheObject) {
  Add(At("one"), "first");
  ASSERT_TRUE(manager_.RemoveObject("key", "bucket"));
  EXPECT_EQ(CountRows(), 0U);
}

TEST_F(ObjectStorageManagerAttributes, ComeBackWithAnObjectWhoseBytesCannotBeFreed) {
  ASSERT_TRUE(database_.Run("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES ('fs01', 'disk')"));
  Add(At("fs01one.d"), "first");
  EXPECT_FALSE(manager_.RemoveObject("key", "bucket", [](const std::string&) { return false; }));
  EXPECT_EQ(InMemory(), "first");
  EXPECT_EQ(InDatabase(), Texts{"bucket/key fs01one.d first"});
}

TEST_F(ObjectStorageManagerAttributes, AreLoaded) {
  Add(At("one"), "first");
  ObjectInfo object;
  ASSERT_TRUE(manager_.GetObjectByName(object, "key", "bucket"));
  ASSERT_TRUE(database_.Run("UPDATE platform.local_object_attributes SET attributes = 'another server wrote this'"));
  EXPECT_TRUE(manager_.LoadAttributes());
  EXPECT_EQ(InMemory(), "another server wrote this");
  database_.FailStatementsWith("local_object_attributes");
  EXPECT_FALSE(manager_.LoadAttributes());
  database_.Heal();
}

TEST_F(ObjectStorageManagerAttributes, AreFilledInOnce) {
  ObjectInfo object = At("one");
  ASSERT_TRUE(manager_.AddObject(object));
  EXPECT_TRUE(manager_.FillInAttributes(object, "first"));
  EXPECT_EQ(InMemory(), "first");
  EXPECT_EQ(InDatabase(), Texts{"bucket/key one first"});
  EXPECT_TRUE(manager_.FillInAttributes(object, "second"));
  EXPECT_EQ(InMemory(), "first");
  EXPECT_EQ(InDatabase(), Texts{"bucket/key one first"});
}

TEST_F(ObjectStorageManagerAttributes, AreNotFilledInForOtherBytes) {
  ObjectInfo object = At("one");
  ASSERT_TRUE(manager_.AddObject(object));
  ObjectInfo replacement = At("two");
  ASSERT_TRUE(manager_.AddObject(replacement));
  EXPECT_TRUE(manager_.FillInAttributes(object, "of one"));
  EXPECT_EQ(InMemory(), "");
  ASSERT_TRUE(manager_.RemoveObject("key", "bucket"));
  EXPECT_TRUE(manager_.FillInAttributes(replacement, "of two"));
  EXPECT_EQ(InMemory(), "no object");
  EXPECT_EQ(CountRows(), 0U);
}

TEST_F(ObjectStorageManagerAttributes, StayAwayWhenTheDatabaseRefuses) {
  ObjectInfo object = At("one");
  ASSERT_TRUE(manager_.AddObject(object));
  database_.FailStatementsWith("local_object_attributes");
  EXPECT_FALSE(manager_.FillInAttributes(object, "first"));
  EXPECT_EQ(Add(At("two"), "second"), EAdded::kFailed);
  database_.Heal();
  EXPECT_EQ(InMemory(), "");
  EXPECT_EQ(InDatabase(), Texts{});
  ASSERT_TRUE(manager_.GetObjectByName(object, "key", "bucket"));
  EXPECT_EQ(object.url, "one") << "the object changed without its attributes";
}

TEST_F(ObjectStorageManagerAttributes, AConditionSeesWhatIsThere) {
  std::optional<std::string> seen;
  const auto look = [&seen](const ObjectInfo* there, const std::string& attributes) {
    seen = there == nullptr ? "none" : there->url + " " + attributes;
    return true;
  };
  Add(At("one"), "first", look);
  EXPECT_EQ(seen, "none");
  Add(At("two"), "second", look);
  EXPECT_EQ(seen, "one first");
}

TEST_F(ObjectStorageManagerAttributes, AConditionThatFailsChangesNothing) {
  Add(At("one"), "first");
  const auto refuse = [](const ObjectInfo*, const std::string&) { return false; };
  EXPECT_EQ(Add(At("two"), "second", refuse), EAdded::kRefused);
  EXPECT_EQ(Add(At("two", "new"), "second", refuse), EAdded::kRefused);
  EXPECT_EQ(InDatabase(), Texts{"bucket/key one first"});
  EXPECT_EQ(InMemory("new"), "no object");
  // The key is free again.
  EXPECT_EQ(Add(At("three"), "third"), EAdded::kAdded);
  ObjectInfo in_missing_bucket = At("two");
  in_missing_bucket.bucket_name = "missing";
  EXPECT_EQ(Add(in_missing_bucket, "second"), EAdded::kFailed);
}

// Many at once want to be the first.
TEST_F(ObjectStorageManagerAttributes, OneOfManyNewObjectsIsAdded) {
  const auto if_new = [](const ObjectInfo* there, const std::string&) { return there == nullptr; };
  for (int round = 0; round < 20; ++round) {
    const std::string name = "key-" + std::to_string(round);
    std::atomic<int> added{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) {
      threads.emplace_back([&, i] {
        const std::string text = std::to_string(i);
        added += Add(At("url-" + text, name), text, if_new) == EAdded::kAdded ? 1 : 0;
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(added, 1);
    ObjectInfo object;
    ASSERT_TRUE(manager_.GetObjectByName(object, name, "bucket"));
    EXPECT_EQ("url-" + InMemory(name), object.url);
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage
