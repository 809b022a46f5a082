#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "CatalogueFixture.h"
#include "db_layer/CommitBarrier.h"

namespace Tansy::CloudStorage {
namespace {

using Texts = std::vector<std::string>;

class ObjectStorageManagerObjects : public CatalogueFixture {
 protected:
  Texts Rows(const std::string& column) { return database_.Column("SELECT * FROM platform.local_object", column); }

  ObjectInfo Find(const std::string& bucket_name, const std::string& name) {
    ObjectInfo object;
    EXPECT_TRUE(manager_.GetObjectByName(object, name, bucket_name)) << name;
    return object;
  }
};

TEST_F(ObjectStorageManagerObjects, AddsTheFirstObjectOfABucket) {
  MakeBucket("bucket");
  ObjectInfo object = Object("bucket", "key");
  ASSERT_TRUE(manager_.AddObject(object));
  EXPECT_NE(object.id, 0U);
  const ObjectInfo found = Find("bucket", "key");
  EXPECT_EQ(found.id, object.id);
  EXPECT_EQ(found.guid, "guid-of-key");
  EXPECT_EQ(found.name, "key");
  EXPECT_EQ(found.bucket_name, "bucket");
  EXPECT_EQ(found.size, 1000U);
  EXPECT_EQ(found.update_time, "2026-11-03 08:00:00");
  EXPECT_EQ(found.url, "fs01ab-cd-key.d");
  EXPECT_EQ(Rows("name"), Texts{"key"});
  // The look-up of a new name writes a line of its own.
  ExpectLine(5, "CObjectStorageManager::GetObjectByName", "[%s]get Object[%s] failed, object not exist.[%s(%d)]",
             "get Object[key] failed, object not exist.");
  EXPECT_EQ(CountLines(logging::kTrace), 1U);
}

TEST_F(ObjectStorageManagerObjects, AddsFurtherObjects) {
  MakeBucket("bucket");
  MakeObject("bucket", "a");
  ObjectInfo object = Object("bucket", "b");
  ASSERT_TRUE(manager_.AddObject(object));
  ExpectLine(5, "CObjectStorageManager::GetObjectByName", "[%s]get Object[%s] failed, object not exist.[%s(%d)]",
             "get Object[b] failed, object not exist.");
  EXPECT_NE(Find("bucket", "a").id, Find("bucket", "b").id);
}

TEST_F(ObjectStorageManagerObjects, KeepsSizesOf64BitsInMemory) {
  MakeBucket("bucket");
  ObjectInfo object = Object("bucket", "big");
  object.size = 0x100000007;
  ASSERT_TRUE(manager_.AddObject(object));
  EXPECT_EQ(Find("bucket", "big").size, 0x100000007U);
  EXPECT_EQ(Rows("size"), Texts{"7"});
}

TEST_F(ObjectStorageManagerObjects, AddsNothingToAMissingBucket) {
  ObjectInfo object = Object("missing", "key");
  EXPECT_FALSE(manager_.AddObject(object));
  ExpectLine(5, "CObjectStorageManager::AddObject", "[%s]Add Object[%s] failed, bucket[%s] not exist.[%s(%d)]",
             "Add Object[key] failed, bucket[missing] not exist.");
  EXPECT_EQ(CountLines(logging::kTrace), 1U);
  EXPECT_EQ(database_.Statements(), Texts{});
}

TEST_F(ObjectStorageManagerObjects, AddsNothingThatTheDatabaseRefuses) {
  MakeBucket("bucket");
  for (const char* refused : {"nextval", "INSERT"}) {
    StartOver();
    database_.FailStatementsWith(refused);
    ObjectInfo object = Object("bucket", "key");
    EXPECT_FALSE(manager_.AddObject(object));
    ExpectLine(5, "CObjectStorageManager::AddObject", "[%s]Add object[%s] failed, db operation failed.[%s(%d)]",
               "Add object[key] failed, db operation failed.");
    EXPECT_FALSE(manager_.GetObjectByName(object, "key", "bucket"));
    database_.Heal();
  }
}

TEST_F(ObjectStorageManagerObjects, UpdatesAnObjectThatIsAddedAgain) {
  MakeBucket("bucket");
  const ObjectInfo first = MakeObject("bucket", "key");
  MakeObject("bucket", "after");
  ObjectInfo second = Object("bucket", "key");
  second.id = 4711;
  second.guid = "new guid";
  second.size = 2000;
  second.update_time = "2026-11-03 09:00:00";
  second.url = "fs01new.d";
  ASSERT_TRUE(manager_.AddObject(second));
  EXPECT_EQ(second.id, first.id);
  EXPECT_EQ(database_.Statements(),
            Texts{"UPDATE platform.local_object set size=2000, update_time='2026-11-03 09:00:00', url='fs01new.d' "
                  "where id=" +
                  std::to_string(first.id) + " ;"});
  const ObjectInfo found = Find("bucket", "key");
  EXPECT_EQ(found.id, first.id);
  EXPECT_EQ(found.guid, "new guid");
  EXPECT_EQ(found.size, 2000U);
  EXPECT_EQ(found.url, "fs01new.d");
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
  EXPECT_EQ(Rows("name").size(), 2U);
  Find("bucket", "after");
}

TEST_F(ObjectStorageManagerObjects, UpdatesNothingThatIsMissing) {
  ObjectInfo object = Object("missing", "key");
  EXPECT_FALSE(manager_.UpdateObject(object));
  ExpectLine(5, "CObjectStorageManager::UpdateObject", "[%s]update Object[%s] failed, bucket[%s] not exist.[%s(%d)]",
             "update Object[key] failed, bucket[missing] not exist.");
  MakeBucket("bucket");
  MakeObject("bucket", "other");
  object = Object("bucket", "key");
  EXPECT_FALSE(manager_.UpdateObject(object));
  ExpectLine(5, "CObjectStorageManager::UpdateObject", "[%s]update Object[%s] failed, object not exist.[%s(%d)]",
             "update Object[key] failed, object not exist.");
  EXPECT_EQ(database_.Statements(), Texts{});
}

TEST_F(ObjectStorageManagerObjects, UpdatesNothingThatTheDatabaseRefuses) {
  MakeBucket("bucket");
  MakeObject("bucket", "key");
  database_.FailStatementsWith("UPDATE");
  ObjectInfo object = Object("bucket", "key");
  object.url = "new";
  EXPECT_FALSE(manager_.AddObject(object));
  ExpectLine(5, "CObjectStorageManager::UpdateObject", "[%s]update Object[%s] failed, db operate failed.[%s(%d)]",
             "update Object[key] failed, db operate failed.");
  EXPECT_EQ(Find("bucket", "key").url, "fs01ab-cd-key.d");
}

TEST_F(ObjectStorageManagerObjects, LogsWhatALookUpMisses) {
  ObjectInfo object = Object("x", "untouched");
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "missing"));
  ExpectLine(5, "CObjectStorageManager::GetObjectByName", "[%s]get Object[%s] failed, bucket[%s] not exist.[%s(%d)]",
             "get Object[key] failed, bucket[missing] not exist.");
  MakeBucket("bucket");
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "bucket")) << "a bucket without a set";
  ExpectLine(5, "CObjectStorageManager::GetObjectByName", "[%s]get Object[%s] failed, object not exist.[%s(%d)]",
             "get Object[key] failed, object not exist.");
  MakeObject("bucket", "other");
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "bucket")) << "a set without the name";
  ExpectLine(5, "CObjectStorageManager::GetObjectByName", "[%s]get Object[%s] failed, object not exist.[%s(%d)]",
             "get Object[key] failed, object not exist.");
  EXPECT_EQ(object.name, "untouched");
}

TEST_F(ObjectStorageManagerObjects, CompareNamesByteByByte) {
  MakeBucket("bucket");
  const Texts names = {"a", "A", "a ", "a/b", "\xE4\xBD\xA0", std::string("a\0b", 3), std::string(128, 'k')};
  for (const std::string& name : names) {
    MakeObject("bucket", name);
  }
  for (const std::string& name : names) {
    EXPECT_EQ(Find("bucket", name).name, name);
  }
}

TEST_F(ObjectStorageManagerObjects, RemovesAnObject) {
  MakeBucket("bucket");
  const ObjectInfo object = MakeObject("bucket", "key");
  MakeObject("bucket", "other");
  EXPECT_TRUE(manager_.RemoveObject("key", "bucket"));
  EXPECT_EQ(database_.Statements(), Texts{"DELETE FROM platform.local_object where id=" + std::to_string(object.id)});
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
  ObjectInfo found;
  EXPECT_FALSE(manager_.GetObjectByName(found, "key", "bucket"));
  Find("bucket", "other");
}

TEST_F(ObjectStorageManagerObjects, CountAMissingObjectAsRemoved) {
  MakeBucket("bucket");
  EXPECT_TRUE(manager_.RemoveObject("key", "missing"));
  EXPECT_TRUE(manager_.RemoveObject("key", "bucket"));
  MakeObject("bucket", "other");
  EXPECT_TRUE(manager_.RemoveObject("key", "bucket"));
  EXPECT_EQ(database_.Statements(), Texts{});
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
}

TEST_F(ObjectStorageManagerObjects, KeepAnObjectWhoseRowStays) {
  MakeBucket("bucket");
  const ObjectInfo object = MakeObject("bucket", "key");
  database_.FailStatementsWith("DELETE");
  EXPECT_FALSE(manager_.RemoveObject("key", "bucket"));
  ExpectLine(5, "CObjectStorageManager::RemoveObject", "[%s]remove object[%s] failed, db operation failed.[%s(%d)]",
             "remove object[key] failed, db operation failed.");
  EXPECT_EQ(Find("bucket", "key").url, object.url);
  EXPECT_EQ(Rows("name"), Texts{"key"});
  database_.Heal();
  EXPECT_TRUE(manager_.RemoveObject("key", "bucket"));
  EXPECT_EQ(Rows("name"), Texts{});
}

class ObjectFile : public ObjectStorageManagerObjects {
 protected:
  ObjectFile() {
    MakeBucket("bucket");
    EXPECT_TRUE(
        database_.Run("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES ('fs01', "
                      "'./vol-1\\'), ('none', '')"));
  }

  // The path of an object with this url; "-" when there is none.
  std::string PathOf(const std::string& url) {
    ObjectInfo object = Object("bucket", "key");
    object.url = url;
    EXPECT_TRUE(manager_.AddObject(object));
    StartOver();
    std::string path = "untouched";
    if (!manager_.GetObjectFile(path, "key", "bucket")) {
      EXPECT_EQ(path, "untouched");
      return "-";
    }
    return path;
  }
};

TEST_F(ObjectFile, IsTheVolumesPathAndTheRestWithSeparators) {
  EXPECT_EQ(PathOf("fs01ab-cd-0123.d"), "./vol-1\\ab\\cd\\0123.d");
  EXPECT_EQ(database_.Statements(), Texts{"SELECT * FROM platform.picture_url_encrypt where encrypt_url='fs01'"});
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
}

TEST_F(ObjectFile, NeedsAUrlThatEndsInD) {
  EXPECT_EQ(PathOf("fs01ab-cd-0123.D"), "-");
  EXPECT_EQ(PathOf("fs01ab-cd-0123"), "-");
  EXPECT_EQ(PathOf("fs01ab.d "), "-");
  EXPECT_EQ(PathOf("d"), "-");
  EXPECT_EQ(PathOf(""), "-");
  EXPECT_EQ(database_.Statements(), Texts{});
}

TEST_F(ObjectFile, NeedsAKeyThatIsKnown) {
  EXPECT_EQ(PathOf("fs02ab.d"), "-");
  EXPECT_EQ(PathOf("noneab.d"), "-");
  database_.FailStatementsWith("picture_url_encrypt");
  EXPECT_EQ(PathOf("fs01ab.d"), "-");
}

TEST_F(ObjectFile, TakesUrlsShorterThanAKey) {
  EXPECT_EQ(PathOf(".d"), "-");
  EXPECT_EQ(PathOf("a.d"), "-");
  ASSERT_TRUE(database_.Run("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES ('ab.d', 'whole')"));
  EXPECT_EQ(PathOf("ab.d"), "whole");
}

TEST_F(ObjectFile, LogsABucketWithoutObjectsOnly) {
  std::string path = "untouched";
  EXPECT_FALSE(manager_.GetObjectFile(path, "key", "bucket"));
  ExpectLine(5, "CObjectStorageManager::GetObjectFile", "[%s]Object not exist.object_name %s,bucket_name %s[%s(%d)]",
             "Object not exist.object_name key,bucket_name bucket");
  MakeObject("bucket", "other");
  EXPECT_FALSE(manager_.GetObjectFile(path, "key", "bucket"));
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
  EXPECT_EQ(path, "untouched");
}

TEST_F(ObjectFile, GoesWithTheRow) {
  MakeObject("bucket", "key");
  Texts paths;
  EXPECT_TRUE(manager_.RemoveObject("key", "bucket", [&](const std::string& path) {
    paths.push_back(path);
    EXPECT_EQ(Rows("name"), Texts{}) << "bytes without a row are better than a row without bytes";
    return true;
  }));
  EXPECT_EQ(paths, Texts{"./vol-1\\ab\\cd\\key.d"});
  ObjectInfo object;
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "bucket"));
}

TEST_F(ObjectFile, ThatStaysKeepsItsRow) {
  const ObjectInfo object = MakeObject("bucket", "key");
  EXPECT_FALSE(manager_.RemoveObject("key", "bucket", [](const std::string&) { return false; }));
  EXPECT_EQ(Find("bucket", "key").url, object.url);
  EXPECT_EQ(Rows("url"), Texts{object.url});
  EXPECT_EQ(Rows("id"), Texts{std::to_string(Find("bucket", "key").id)});
  EXPECT_TRUE(manager_.RemoveObject("key", "bucket"));
  EXPECT_EQ(Rows("url"), Texts{});
}

TEST_F(ObjectFile, IsNotTouchedWhenTheRowStays) {
  MakeObject("bucket", "key");
  database_.FailStatementsWith("DELETE");
  EXPECT_FALSE(manager_.RemoveObject("key", "bucket", [](const std::string&) {
    ADD_FAILURE() << "bytes of a row that stays";
    return true;
  }));
  Find("bucket", "key");
}

TEST_F(ObjectFile, WhoseRowCannotBePutBackIsNoObjectAnyMore) {
  MakeObject("bucket", "key");
  EXPECT_FALSE(manager_.RemoveObject("key", "bucket", [this](const std::string&) {
    database_.FailStatementsWith("INSERT");
    return false;
  }));
  ExpectLine(5, "CObjectStorageManager::PutRowBack", "[%s]put back object[%s] failed, db operation failed.[%s(%d)]",
             "put back object[key] failed, db operation failed.");
  ObjectInfo object;
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "bucket")) << "memory and database still agree";
  EXPECT_EQ(Rows("url"), Texts{});
}

// Memory and database hold the same objects, each once, with the same contents.
class ObjectStorageManagerParallel : public ObjectStorageManagerObjects {
 protected:
  void ExpectAgreement(const std::string& bucket_name, const Texts& names) {
    const std::string where = "SELECT * FROM platform.local_object WHERE bucket_name='" + bucket_name + "'";
    const Texts row_names = database_.Column(where, "name");
    const Texts row_ids = database_.Column(where, "id");
    const Texts row_urls = database_.Column(where, "url");
    std::map<std::string, std::string> in_database;
    for (std::size_t i = 0; i < row_names.size(); ++i) {
      in_database[row_names[i]] = row_ids[i] + " " + row_urls[i];
    }
    EXPECT_EQ(in_database.size(), row_names.size()) << "a name twice";
    std::map<std::string, std::string> in_memory;
    for (const std::string& name : names) {
      if (ObjectInfo object; manager_.GetObjectByName(object, name, bucket_name)) {
        in_memory[name] = std::to_string(object.id) + " " + object.url;
      }
    }
    EXPECT_EQ(in_memory, in_database);
  }

  template <class Work>
  static void InThreads(int count, Work work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([work, i] { work(i); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }
};

TEST_F(ObjectStorageManagerParallel, UploadsOfOneNewNameMakeOneRow) {
  MakeBucket("bucket");
  Texts names;
  for (int round = 0; round < 10; ++round) {
    names.push_back("key-" + std::to_string(round));
  }
  std::atomic<int> failures{0};
  InThreads(8, [&](int i) {
    for (const std::string& name : names) {
      ObjectInfo object = Object("bucket", name);
      object.url = "by-" + std::to_string(i);
      failures += manager_.AddObject(object) ? 0 : 1;
    }
  });
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(database_.CountStatements("INSERT"), names.size());
  ExpectAgreement("bucket", names);
}

TEST_F(ObjectStorageManagerParallel, UploadsRemovalsAndReadsAgreeAtTheEnd) {
  MakeBucket("bucket");
  const Texts names = {"a", "b", "c", "d"};
  std::atomic<int> failures{0};
  InThreads(6, [&](int i) {
    for (int round = 0; round < 40; ++round) {
      const std::string& name = names[static_cast<std::size_t>(round + i) % names.size()];
      ObjectInfo object = Object("bucket", name);
      object.url = "by " + std::to_string(i) + " in " + std::to_string(round);
      if ((round * 7 + i) % 3 == 0) {
        failures += manager_.RemoveObject(name, "bucket") ? 0 : 1;
      } else {
        failures += manager_.AddObject(object) ? 0 : 1;
      }
      manager_.GetObjectByName(object, name, "bucket");
      std::string path;
      manager_.GetObjectFile(path, name, "bucket");
    }
  });
  EXPECT_EQ(failures, 0) << "an upload fails because of a removal beside it";
  ExpectAgreement("bucket", names);
}

TEST_F(ObjectStorageManagerParallel, UploadsIntoABucketThatGoesAndComesBack) {
  const Texts names = {"a", "b", "c", "d"};
  std::atomic<bool> done{false};
  std::atomic<int> stored{0};
  std::atomic<int> refused{0};
  const auto wait_for_another = [](const std::atomic<int>& count) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (const int before = count; count == before && std::chrono::steady_clock::now() < limit;) {
      std::this_thread::yield();
    }
  };
  std::thread comes_and_goes([&] {
    for (int round = 0; round < 15; ++round) {
      BucketInfo bucket;
      bucket.name = "bucket";
      manager_.AddBucket(bucket);
      wait_for_another(stored);
      if (round < 14) {
        manager_.RemoveBucket(bucket.id);
        wait_for_another(refused);
      }
    }
    done = true;
  });
  InThreads(4, [&](int i) {
    for (int round = 0; !done; ++round) {
      ObjectInfo object = Object("bucket", names[static_cast<std::size_t>(i)]);
      object.url = std::to_string(round);
      ++(manager_.AddObject(object) ? stored : refused);
    }
  });
  comes_and_goes.join();
  EXPECT_GE(stored, 15) << "uploads met no bucket";
  EXPECT_GE(refused, 14) << "every upload met a bucket";
  ASSERT_TRUE(manager_.IsBucketExist("bucket"));
  ExpectAgreement("bucket", names);
}

TEST_F(ObjectStorageManagerParallel, ARemovalBesideAnUploadComesAfterIt) {
  MakeBucket("bucket");
  ObjectInfo object = Object("bucket", "key");
  RunBeside(
      "INSERT", [&] { EXPECT_TRUE(manager_.AddObject(object)); },
      [&] { EXPECT_TRUE(manager_.RemoveObject("key", "bucket")); });
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "bucket"));
  EXPECT_EQ(Rows("name"), Texts{});
}

// Uploads whose threads do not wait for their commit.
class ObjectStorageManagerLater : public ObjectStorageManagerParallel {
 protected:
  void SetUp() override { MakeBucket("bucket"); }

  void AddLater(const ObjectInfo& object) {
    manager_.AddObject(object, [this](bool added) { ++(added ? added_ : refused_); });
  }

  std::atomic<int> added_{0};
  std::atomic<int> refused_{0};
};

TEST_F(ObjectStorageManagerLater, AnObjectIsThereWhenItsRowIs) {
  RunBeside(
      "INSERT", [this] { AddLater(Object("bucket", "key")); },
      [this] {
        ObjectInfo object;
        EXPECT_FALSE(manager_.GetObjectByName(object, "key", "bucket")) << "seen before its row is committed";
        EXPECT_EQ(added_, 0);
      });
  EXPECT_EQ(added_, 1);
  EXPECT_EQ(Find("bucket", "key").url, "fs01ab-cd-key.d");
  EXPECT_EQ(Rows("name"), Texts{"key"});
  EXPECT_EQ(Rows("id"), Texts{std::to_string(Find("bucket", "key").id)});
}

TEST_F(ObjectStorageManagerLater, AnOverwriteIsThereWhenItsRowIs) {
  const ObjectInfo first = MakeObject("bucket", "key");
  ObjectInfo second = Object("bucket", "key");
  second.url = "second";
  RunBeside(
      "UPDATE", [&] { AddLater(second); }, [&] { EXPECT_EQ(Find("bucket", "key").url, first.url); });
  EXPECT_EQ(added_, 1);
  EXPECT_EQ(Find("bucket", "key").url, "second");
  EXPECT_EQ(Find("bucket", "key").id, first.id);
  EXPECT_EQ(Rows("url"), Texts{"second"});
}

// While another upload is being committed, whoever adds goes on at once, and the thread that commits ends the addition.
// Its key stays locked until then.
TEST_F(ObjectStorageManagerLater, AnUploadEndsOnTheThreadThatCommits) {
  MakeObject("bucket", "before");  // from here on, ids are at hand without a commit
  std::promise<void> commits;
  std::promise<void> go_on;
  std::atomic<bool> is_first{true};
  db_layer::SetCommitBarrier([&](const std::vector<std::string_view>&, std::string&) {
    if (is_first.exchange(false)) {
      commits.set_value();
      go_on.get_future().wait();
    }
    return true;
  });
  std::thread other([this] { AddLater(Object("bucket", "other")); });
  commits.get_future().wait();
  std::promise<std::thread::id> ends;
  manager_.AddObject(Object("bucket", "key"), [&](bool added) {
    ++(added ? added_ : refused_);
    ends.set_value(std::this_thread::get_id());
  });
  EXPECT_EQ(added_, 0);
  ObjectInfo object;
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "bucket"));
  // A removal that does not wait finds nothing, and the object stays.
  std::future<void> removal =
      std::async(std::launch::async, [this] { EXPECT_TRUE(manager_.RemoveObject("key", "bucket")); });
  EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  const std::thread::id committer = other.get_id();
  go_on.set_value();
  removal.wait();
  other.join();
  db_layer::SetCommitBarrier(nullptr);
  EXPECT_EQ(ends.get_future().get(), committer);
  EXPECT_EQ(added_, 2);
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "bucket"));
  EXPECT_EQ(Rows("name"), (Texts{"before", "other"}));
}

TEST_F(ObjectStorageManagerLater, WhatTheDatabaseRefusesIsNotThere) {
  const ObjectInfo kept = MakeObject("bucket", "kept");
  for (const char* refused : {"nextval", "INSERT", "UPDATE"}) {
    StartOver();
    database_.FailStatementsWith(refused);
    const bool is_update = std::string(refused) == "UPDATE";
    ObjectInfo object = Object("bucket", is_update ? "kept" : "key");
    object.url = "other";
    AddLater(object);
    database_.Heal();
    if (is_update) {
      ExpectLine(5, "CObjectStorageManager::UpdateObject", "[%s]update Object[%s] failed, db operate failed.[%s(%d)]",
                 "update Object[kept] failed, db operate failed.");
    } else {
      ExpectLine(5, "CObjectStorageManager::AddObject", "[%s]Add object[%s] failed, db operation failed.[%s(%d)]",
                 "Add object[key] failed, db operation failed.");
    }
    EXPECT_FALSE(manager_.GetObjectByName(object, "key", "bucket"));
  }
  EXPECT_EQ(refused_, 3);
  EXPECT_EQ(Find("bucket", "kept").url, kept.url);
  EXPECT_EQ(Rows("name"), Texts{"kept"});
}

TEST_F(ObjectStorageManagerLater, AMissingBucketTakesNothing) {
  AddLater(Object("missing", "key"));
  EXPECT_EQ(refused_, 1);
  ExpectLine(5, "CObjectStorageManager::AddObject", "[%s]Add Object[%s] failed, bucket[%s] not exist.[%s(%d)]",
             "Add Object[key] failed, bucket[missing] not exist.");
}

// Each change is committed on one thread and perhaps finished on another.
TEST_F(ObjectStorageManagerLater, UploadsAndRemovalsAtOnceAgreeAtTheEnd) {
  const Texts names = {"a", "b", "c", "d"};
  std::atomic<int> failures{0};
  InThreads(6, [&](int i) {
    for (int round = 0; round < 40; ++round) {
      const std::string& name = names[static_cast<std::size_t>(round + i) % names.size()];
      ObjectInfo object = Object("bucket", name);
      object.url = "by " + std::to_string(i) + " in " + std::to_string(round);
      if ((round * 7 + i) % 3 == 0) {
        failures += manager_.RemoveObject(name, "bucket") ? 0 : 1;
      } else {
        AddLater(object);
      }
    }
  });
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(refused_, 0);
  EXPECT_EQ(added_, 160);
  ExpectAgreement("bucket", names);
}

TEST_F(ObjectStorageManagerParallel, TheRemovalOfABucketComesAfterAnUploadUnderWay) {
  const BucketInfo bucket = MakeBucket("bucket");
  ObjectInfo object = Object("bucket", "key");
  RunBeside(
      "INSERT", [&] { EXPECT_TRUE(manager_.AddObject(object)); },
      [&] { EXPECT_TRUE(manager_.RemoveBucket(bucket.id)); });
  EXPECT_EQ(Rows("name"), Texts{});
  MakeBucket("bucket");
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "bucket"));
}

TEST_F(ObjectStorageManagerParallel, AnUploadBesideTheRemovalOfItsBucketFindsNoBucket) {
  for (const bool as_set : {false, true}) {
    const BucketInfo bucket = MakeBucket("bucket");
    ObjectInfo object = Object("bucket", "key");
    RunBeside(
        "DELETE FROM platform.local_bucket",
        [&] {
          EXPECT_TRUE(as_set ? manager_.RemoveBucket(std::set<std::uint32_t>{bucket.id})
                             : manager_.RemoveBucket(bucket.id));
        },
        [&] { EXPECT_FALSE(manager_.AddObject(object)); });
    EXPECT_EQ(Rows("name"), Texts{});
  }
}

TEST_F(ObjectStorageManagerParallel, AnUploadBesideTheRenamingOfItsBucketGoesAlong) {
  BucketInfo bucket = MakeBucket("bucket");
  ObjectInfo object = Object("bucket", "key");
  bucket.name = "renamed";
  RunBeside(
      "UPDATE platform.local_bucket", [&] { EXPECT_TRUE(manager_.ModifyBucket(bucket)); },
      [&] { EXPECT_TRUE(manager_.AddObject(object)); });
  EXPECT_EQ(Rows("bucket_name"), Texts{"renamed"});
}

// Uploads into a bucket and its removal at once, again and again: whoever comes last, memory and database agree.
TEST_F(ObjectStorageManagerParallel, UploadsAndTheRemovalOfTheirBucketAtOnce) {
  for (int round = 0; round < 60; ++round) {
    const BucketInfo bucket = MakeBucket("bucket");
    InThreads(4, [&](int i) {
      ObjectInfo object = Object("bucket", std::to_string(i));
      if (i == 0) {
        EXPECT_TRUE(manager_.RemoveBucket(bucket.id));
      } else {
        manager_.AddObject(object);
      }
    });
    ASSERT_EQ(Rows("name"), Texts{}) << "rows of a bucket that is gone";
    const BucketInfo again = MakeBucket("bucket");
    ObjectInfo object;
    for (const char* name : {"1", "2", "3"}) {
      ASSERT_FALSE(manager_.GetObjectByName(object, name, "bucket"));
    }
    ASSERT_TRUE(manager_.RemoveBucket(again.id));
  }
}

TEST_F(ObjectStorageManagerParallel, AnUploadBesideARemovalWithItsFileKeepsItsBytes) {
  MakeBucket("bucket");
  ASSERT_TRUE(
      database_.Run("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES ('fs01', './vol-1\\')"));
  MakeObject("bucket", "key");
  ObjectInfo fresh = Object("bucket", "key");
  fresh.url = "fs01ab-cd-fresh.d";
  Texts paths;
  RunBeside(
      "DELETE FROM platform.local_object",
      [&] {
        EXPECT_TRUE(manager_.RemoveObject("key", "bucket", [&paths](const std::string& path) {
          paths.push_back(path);
          return true;
        }));
      },
      [&] { EXPECT_TRUE(manager_.AddObject(fresh)); });
  EXPECT_EQ(paths, Texts{"./vol-1\\ab\\cd\\key.d"});
  EXPECT_EQ(Find("bucket", "key").url, fresh.url);
  EXPECT_EQ(Rows("url"), Texts{fresh.url});
}

TEST_F(ObjectStorageManagerParallel, ASecondUploadOfANewNameBesideTheFirstUpdatesIt) {
  MakeBucket("bucket");
  ObjectInfo first = Object("bucket", "key");
  ObjectInfo second = Object("bucket", "key");
  second.url = "second";
  RunBeside(
      "INSERT", [&] { EXPECT_TRUE(manager_.AddObject(first)); }, [&] { EXPECT_TRUE(manager_.AddObject(second)); });
  EXPECT_EQ(second.id, first.id);
  EXPECT_EQ(Rows("url"), Texts{"second"});
  EXPECT_EQ(Find("bucket", "key").url, "second");
}

// While the first statement with this text is under way in `work`, `look` must come to its end.
class ObjectStorageManagerReaders : public ObjectStorageManagerParallel {
 protected:
  template <class Work, class Look>
  void ReadDuring(const std::string& statement, Work work, Look look) {
    std::promise<void> writing;
    std::promise<void> read;
    std::future<void> was_read = read.get_future();
    std::atomic<bool> started{false};
    std::atomic<bool> waited_in_vain{false};
    database_.SetHook([&](const std::string& sql) {
      if (sql.starts_with(statement) && !started.exchange(true)) {
        writing.set_value();
        waited_in_vain = was_read.wait_for(std::chrono::seconds(20)) != std::future_status::ready;
      }
    });
    std::thread writer(work);
    writing.get_future().wait();
    look();
    read.set_value();
    writer.join();
    database_.SetHook(nullptr);
    EXPECT_FALSE(waited_in_vain) << "the readers waited for " << statement;
  }

  std::string UrlOf(const std::string& name) {
    ObjectInfo object;
    return manager_.GetObjectByName(object, name, "bucket") ? object.url : "none";
  }
};

TEST_F(ObjectStorageManagerReaders, DoNotWaitForANewObject) {
  MakeBucket("bucket");
  MakeObject("bucket", "read");
  ReadDuring(
      "INSERT",
      [this] {
        ObjectInfo object = Object("bucket", "written");
        EXPECT_TRUE(manager_.AddObject(object));
      },
      [this] {
        Find("bucket", "read");
        EXPECT_EQ(UrlOf("written"), "none") << "found before its row was there";
        EXPECT_TRUE(manager_.RemoveObject("no such object", "bucket"));
      });
  Find("bucket", "written");
}

TEST_F(ObjectStorageManagerReaders, DoNotWaitForAnOverwrite) {
  MakeBucket("bucket");
  MakeObject("bucket", "read");
  const std::string before = MakeObject("bucket", "written").url;
  ReadDuring(
      "UPDATE platform.local_object ",
      [this] {
        ObjectInfo object = Object("bucket", "written");
        object.url = "after";
        EXPECT_TRUE(manager_.AddObject(object));
      },
      [&] {
        Find("bucket", "read");
        EXPECT_EQ(UrlOf("written"), before) << "the row is not there yet";
        EXPECT_TRUE(manager_.IsStoredAt("written", "bucket", before));
        std::string path;
        manager_.GetObjectFile(path, "written", "bucket");
      });
  EXPECT_EQ(UrlOf("written"), "after");
}

TEST_F(ObjectStorageManagerReaders, KeepWhatTheyHadWhenAnOverwriteFails) {
  MakeBucket("bucket");
  const std::string before = MakeObject("bucket", "written").url;
  database_.FailStatementsWith("UPDATE platform.local_object ");
  ReadDuring(
      "UPDATE platform.local_object ",
      [this] {
        ObjectInfo object = Object("bucket", "written");
        object.url = "after";
        EXPECT_FALSE(manager_.AddObject(object));
      },
      [&] { EXPECT_EQ(UrlOf("written"), before); });
  EXPECT_EQ(UrlOf("written"), before);
}

TEST_F(ObjectStorageManagerReaders, DoNotWaitForARemoval) {
  MakeBucket("bucket");
  MakeObject("bucket", "read");
  MakeObject("bucket", "removed");
  ReadDuring(
      "DELETE", [this] { EXPECT_TRUE(manager_.RemoveObject("removed", "bucket")); },
      [this] {
        Find("bucket", "read");
        Find("bucket", "removed");
      });
  EXPECT_EQ(UrlOf("removed"), "none");
}

TEST_F(ObjectStorageManagerReaders, DoNotWaitForChangesOfBuckets) {
  BucketInfo bucket = MakeBucket("bucket");
  const BucketInfo other = MakeBucket("other");
  MakeObject("bucket", "read");
  const auto look = [this] {
    Find("bucket", "read");
    BucketInfo found;
    EXPECT_TRUE(manager_.GetBucketByName(found, "bucket"));
    std::map<std::string, BucketInfo> all;
    EXPECT_TRUE(manager_.GetBucketList(all));
    EXPECT_FALSE(manager_.IsBucketExist("new"));
  };
  ReadDuring(
      "INSERT INTO platform.local_bucket",
      [this] {
        BucketInfo added;
        added.name = "new";
        EXPECT_TRUE(manager_.AddBucket(added));
        EXPECT_TRUE(manager_.RemoveBucket(added.id));
      },
      look);
  ReadDuring(
      "UPDATE platform.local_bucket", [&] { EXPECT_TRUE(manager_.ModifyBucket(bucket)); }, look);
  ReadDuring(
      "DELETE FROM platform.local_bucket", [&] { EXPECT_TRUE(manager_.RemoveBucket(other.id)); }, look);
}

// Two overwrites of one name: the second waits for the first, also when both are under way at once.
TEST_F(ObjectStorageManagerReaders, TheSecondOfTwoOverwritesWins) {
  MakeBucket("bucket");
  const ObjectInfo first = MakeObject("bucket", "key");
  ObjectInfo second = Object("bucket", "key");
  second.url = "second";
  ObjectInfo third = Object("bucket", "key");
  third.url = "third";
  RunBeside(
      "UPDATE", [&] { EXPECT_TRUE(manager_.AddObject(second)); }, [&] { EXPECT_TRUE(manager_.UpdateObject(third)); });
  EXPECT_EQ(third.id, first.id);
  EXPECT_EQ(Rows("url"), Texts{"third"});
  EXPECT_EQ(UrlOf("key"), "third");
}

// A removal and an upload of one name at once, again and again.
TEST_F(ObjectStorageManagerReaders, AnObjectThatGoesAndComesBack) {
  MakeBucket("bucket");
  std::atomic<int> wrong{0};
  InThreads(4, [&](int i) {
    for (int round = 0; round < 60; ++round) {
      ObjectInfo object = Object("bucket", "key");
      object.url = "by " + std::to_string(i) + " in " + std::to_string(round);
      if (i == 0) {
        manager_.RemoveObject("key", "bucket");
      } else if (i == 1) {
        manager_.AddObject(object);
      } else if (manager_.GetObjectByName(object, "key", "bucket")) {
        wrong += object.url.starts_with("by 1 in ") ? 0 : 1;
      }
    }
  });
  EXPECT_EQ(wrong, 0);
  ExpectAgreement("bucket", {"key"});
}

}  // namespace
}  // namespace Tansy::CloudStorage
