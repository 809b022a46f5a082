#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CatalogueFixture.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"

namespace Tansy::CloudStorage {
namespace {

using Texts = std::vector<std::string>;
using Ids = std::set<std::uint32_t>;

class ObjectStorageManagerBuckets : public CatalogueFixture {
 protected:
  static BucketInfo Named(const std::string& name) {
    BucketInfo bucket;
    bucket.guid = "guid";
    bucket.name = name;
    bucket.reserve = "reserve";
    bucket.acl = 3;
    bucket.location = "loc";
    bucket.cycle = 4;
    bucket.size = 5;
    bucket.flag = 6;
    return bucket;
  }

  Texts Rows(const std::string& column) { return database_.Column("SELECT * FROM platform.local_bucket", column); }
};

TEST_F(ObjectStorageManagerBuckets, AddsABucket) {
  BucketInfo bucket = Named("added");
  EXPECT_FALSE(manager_.IsBucketExist("added"));
  ASSERT_TRUE(manager_.AddBucket(bucket));
  EXPECT_NE(bucket.id, 0U);
  EXPECT_EQ(bucket.acl, 0U);
  EXPECT_TRUE(manager_.IsBucketExist("added"));
  EXPECT_FALSE(manager_.IsBucketExist("Added")) << "names are compared byte by byte";
  BucketInfo found;
  ASSERT_TRUE(manager_.GetBucketByName(found, "added"));
  EXPECT_EQ(found.id, bucket.id);
  EXPECT_EQ(found.guid, "guid");
  EXPECT_EQ(found.name, "added");
  EXPECT_EQ(found.reserve, "reserve");
  EXPECT_EQ(found.acl, 0U);
  EXPECT_EQ(found.location, "loc");
  EXPECT_EQ(found.cycle, 4U);
  EXPECT_EQ(found.size, 5U);
  EXPECT_EQ(found.flag, 6U);
  EXPECT_EQ(Rows("name"), Texts{"added"});
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
}

TEST_F(ObjectStorageManagerBuckets, RefusesANameThatExistsBeforeAnyStatement) {
  MakeBucket("twin");
  BucketInfo again = Named("twin");
  EXPECT_FALSE(manager_.AddBucket(again));
  EXPECT_EQ(database_.Statements(), Texts{});
  ExpectLine(5, "CObjectStorageManager::AddBucket", "[%s]Add bucket[%s] failed, bucket already exist.[%s(%d)]",
             "Add bucket[twin] failed, bucket already exist.");
}

TEST_F(ObjectStorageManagerBuckets, AddsNothingThatTheDatabaseRefuses) {
  for (const char* refused : {"INSERT", "nextval"}) {
    StartOver();
    database_.FailStatementsWith(refused);
    BucketInfo bucket = Named("refused");
    EXPECT_FALSE(manager_.AddBucket(bucket));
    ExpectLine(5, "CObjectStorageManager::AddBucket", "[%s]Add bucket[%s] failed, db operation failed.[%s(%d)]",
               "Add bucket[refused] failed, db operation failed.");
    EXPECT_FALSE(manager_.IsBucketExist("refused"));
    database_.Heal();
  }
}

TEST_F(ObjectStorageManagerBuckets, SayNothingOfAMissingBucket) {
  BucketInfo bucket = Named("untouched");
  EXPECT_FALSE(manager_.GetBucketByName(bucket, "missing"));
  EXPECT_EQ(bucket.name, "untouched");
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
}

TEST_F(ObjectStorageManagerBuckets, ListsAll) {
  MakeBucket("b");
  MakeBucket("a");
  std::map<std::string, BucketInfo> buckets;
  buckets["stale"] = Named("stale");
  EXPECT_TRUE(manager_.GetBucketList(buckets));
  ASSERT_EQ(buckets.size(), 2U);
  EXPECT_EQ(buckets.begin()->first, "a");
  EXPECT_EQ(buckets.at("b").name, "b");
}

TEST_F(ObjectStorageManagerBuckets, ModifiesWhatMayChange) {
  BucketInfo bucket = Named("modified");
  ASSERT_TRUE(manager_.AddBucket(bucket));
  StartOver();
  BucketInfo change;
  change.id = bucket.id;
  change.guid = "new guid";
  change.name = "modified";
  change.reserve = "new reserve";
  change.acl = 9;
  change.location = "new loc";
  change.cycle = 40;
  change.size = 50;
  change.flag = 60;
  ASSERT_TRUE(manager_.ModifyBucket(change));
  BucketInfo found;
  ASSERT_TRUE(manager_.GetBucketByName(found, "modified"));
  EXPECT_EQ(found.guid, "guid");
  EXPECT_EQ(found.reserve, "new reserve");
  EXPECT_EQ(found.acl, 0U);
  EXPECT_EQ(found.location, "new loc");
  EXPECT_EQ(found.cycle, 40U);
  EXPECT_EQ(found.size, 50U);
  EXPECT_EQ(found.flag, 6U);
  EXPECT_EQ(Rows("location"), Texts{"new loc"});
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
}

TEST_F(ObjectStorageManagerBuckets, KeepTheirOldNameAfterARename) {
  BucketInfo bucket = MakeBucket("before");
  bucket.name = "after";
  ASSERT_TRUE(manager_.ModifyBucket(bucket));
  BucketInfo found;
  EXPECT_FALSE(manager_.GetBucketByName(found, "after"));
  EXPECT_FALSE(manager_.IsBucketExist("after"));
  ASSERT_TRUE(manager_.GetBucketByName(found, "before"));
  EXPECT_EQ(found.name, "after");
  EXPECT_EQ(Rows("name"), Texts{"after"});
}

TEST_F(ObjectStorageManagerBuckets, ModifiesNothingThatTheDatabaseRefuses) {
  BucketInfo bucket = MakeBucket("modified");
  database_.FailStatementsWith("UPDATE");
  bucket.location = "new loc";
  EXPECT_FALSE(manager_.ModifyBucket(bucket));
  ExpectLine(5, "CObjectStorageManager::ModifyBucket", "[%s]Modify bucket[%s] failed, db operation failed.[%s(%d)]",
             "Modify bucket[modified] failed, db operation failed.");
  BucketInfo found;
  ASSERT_TRUE(manager_.GetBucketByName(found, "modified"));
  EXPECT_EQ(found.location, "");
}

TEST_F(ObjectStorageManagerBuckets, ModifiesTheRowOfABucketThatIsNotInMemory) {
  ASSERT_TRUE(
      database_.Run("INSERT INTO platform.local_bucket (id, guid, name, acl, location, cycle, size, "
                    "update_time) VALUES (900, 'g', 'only in the database', 0, '', 0, 0, '')"));
  BucketInfo bucket = Named("new name");
  bucket.id = 900;
  EXPECT_FALSE(manager_.ModifyBucket(bucket));
  ExpectLine(5, "CObjectStorageManager::ModifyBucket", "[%s]Modify bucket[%s] failed, bucket not exist.[%s(%d)]",
             "Modify bucket[new name] failed, bucket not exist.");
  EXPECT_EQ(Rows("name"), Texts{"new name"});
}

TEST_F(ObjectStorageManagerBuckets, RemovesABucketWithItsObjects) {
  const BucketInfo bucket = MakeBucket("removed");
  MakeBucket("stays");
  MakeObject("removed", "key");
  MakeObject("stays", "key");
  ASSERT_TRUE(manager_.RemoveBucket(bucket.id));
  EXPECT_EQ(database_.Statements(),
            (Texts{"DELETE FROM platform.local_bucket where id=" + std::to_string(bucket.id) + ";",
                   "DELETE FROM platform.local_object where bucket_name='removed';"}));
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
  EXPECT_FALSE(manager_.IsBucketExist("removed"));
  ObjectInfo object;
  EXPECT_TRUE(manager_.GetObjectByName(object, "key", "stays"));
  MakeBucket("removed");
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "removed")) << "a new bucket is empty";
  EXPECT_EQ(database_.Column("SELECT * FROM platform.local_object", "bucket_name"), Texts{"stays"});
}

TEST_F(ObjectStorageManagerBuckets, RemoveTheObjectsOfARenamedBucketAndOfNoOther) {
  BucketInfo renamed = MakeBucket("first");
  MakeBucket("second");
  MakeObject("first", "key");
  MakeObject("second", "key");
  renamed.name = "third";
  ASSERT_TRUE(manager_.ModifyBucket(renamed));
  ASSERT_TRUE(manager_.RemoveBucket(renamed.id));
  EXPECT_FALSE(manager_.IsBucketExist("first"));
  ObjectInfo object;
  EXPECT_TRUE(manager_.GetObjectByName(object, "key", "second"));
  EXPECT_EQ(database_.Column("SELECT * FROM platform.local_object", "bucket_name"), Texts{"second"});
}

// What the next start will find: rows under the new name, those that were added after the renaming included.
TEST_F(ObjectStorageManagerBuckets, TakeTheirObjectsAndTasksAlongWhenTheyAreRenamed) {
  BucketInfo bucket = MakeBucket("old");
  MakeBucket("other");
  MakeObject("old", "before");
  MakeObject("other", "key");
  ObjectTaskInfo task = Part("renamed-task", 1);
  task.bucket_name = "old";
  ASSERT_TRUE(manager_.AddObjectTask(task));
  bucket.name = "new";
  ASSERT_TRUE(manager_.ModifyBucket(bucket));

  ObjectInfo object;
  EXPECT_TRUE(manager_.GetObjectByName(object, "before", "old")) << "the old name is good until the next start";
  object = Object("old", "after");
  EXPECT_TRUE(manager_.AddObject(object));
  ObjectTaskInfo part = Part("renamed-task", 2);
  part.bucket_name = "old";
  EXPECT_TRUE(manager_.InsertObjectTask(part));
  EXPECT_EQ(manager_.CheckTaskInfoExist(part), 0);
  ObjectTaskInfo late = Part("late-task", 1);
  late.bucket_name = "old";
  EXPECT_TRUE(manager_.AddObjectTask(late));

  const std::string objects = "SELECT * FROM platform.local_object WHERE bucket_name='new' ORDER BY name";
  EXPECT_EQ(database_.Column(objects, "name"), (Texts{"after", "before"}));
  const std::string tasks = "SELECT * FROM platform.local_object_task ORDER BY id";
  EXPECT_EQ(database_.Column(tasks, "bucket_name"), (Texts{"new", "new", "new"}));
  Texts loaded;
  EXPECT_TRUE(CObjectServerSession::QueryObject([&](const ObjectInfo& row) { loaded.push_back(row.name); }, "new"));
  EXPECT_EQ(loaded.size(), 2U);
}

TEST_F(ObjectStorageManagerBuckets, AreNotRenamedByHalves) {
  for (const char* refused :
       {"UPDATE platform.local_bucket", "UPDATE platform.local_object ", "UPDATE platform.local_object_task"}) {
    BucketInfo bucket = MakeBucket("whole");
    MakeObject("whole", "key");
    database_.FailStatementsWith(refused);
    bucket.name = "renamed";
    EXPECT_FALSE(manager_.ModifyBucket(bucket)) << refused;
    database_.Heal();
    EXPECT_EQ(Rows("name"), Texts{"whole"});
    EXPECT_EQ(database_.Column("SELECT * FROM platform.local_object", "bucket_name"), Texts{"whole"});
    BucketInfo found;
    EXPECT_TRUE(manager_.GetBucketByName(found, "whole"));
    EXPECT_EQ(found.name, "whole");
    EXPECT_TRUE(manager_.RemoveBucket(bucket.id));
  }
}

// Two buckets of one name could not be told apart at the next start.
TEST_F(ObjectStorageManagerBuckets, AreNotGivenANameThatIsTaken) {
  BucketInfo first = MakeBucket("first");
  BucketInfo second = MakeBucket("second");
  first.name = "second";
  EXPECT_FALSE(manager_.ModifyBucket(first));
  ExpectLine(5, "CObjectStorageManager::ModifyBucket", "[%s]Modify bucket[%s] failed, bucket already exist.[%s(%d)]",
             "Modify bucket[second] failed, bucket already exist.");
  EXPECT_EQ(database_.Statements(), Texts{});

  first.name = "third";
  ASSERT_TRUE(manager_.ModifyBucket(first));
  second.name = "third";
  EXPECT_FALSE(manager_.ModifyBucket(second)) << "taken from the next start on";
  second.name = "first";
  EXPECT_FALSE(manager_.ModifyBucket(second)) << "taken until the next start";
  BucketInfo third = Named("third");
  EXPECT_FALSE(manager_.AddBucket(third));
  first.name = "first";
  EXPECT_TRUE(manager_.ModifyBucket(first)) << "back to its own name";
  EXPECT_TRUE(manager_.AddBucket(third));
}

TEST_F(ObjectStorageManagerBuckets, RemovesNothingThatTheDatabaseRefuses) {
  const BucketInfo bucket = MakeBucket("kept");
  MakeObject("kept", "key");
  database_.FailStatementsWith("local_bucket");
  EXPECT_FALSE(manager_.RemoveBucket(bucket.id));
  ExpectLine(5, "CObjectStorageManager::RemoveBucket", "[%s]remove bucket[%d] failed, db operation failed.[%s(%d)]",
             "remove bucket[" + std::to_string(bucket.id) + "] failed, db operation failed.");
  EXPECT_TRUE(manager_.IsBucketExist("kept"));
  ObjectInfo object;
  EXPECT_TRUE(manager_.GetObjectByName(object, "key", "kept"));
  EXPECT_EQ(database_.CountStatements("local_object"), 0U);
}

// Rows of objects that a removed bucket leaves behind would come back with the next bucket of its name, at the next
// start, in the place of what was stored in that one.
TEST_F(ObjectStorageManagerBuckets, KeepsABucketWhoseObjectsCannotBeRemoved) {
  const BucketInfo bucket = MakeBucket("whole");
  MakeObject("whole", "key");
  for (const bool as_set : {false, true}) {
    StartOver();
    database_.FailStatementsWith("DELETE FROM platform.local_object");
    EXPECT_FALSE(as_set ? manager_.RemoveBucket(Ids{bucket.id}) : manager_.RemoveBucket(bucket.id));
    EXPECT_EQ(CountLines(logging::kError), 1U);
    database_.Heal();
    EXPECT_TRUE(manager_.IsBucketExist("whole"));
    EXPECT_EQ(Rows("name"), Texts{"whole"});
    ObjectInfo object;
    EXPECT_TRUE(manager_.GetObjectByName(object, "key", "whole"));
    EXPECT_EQ(database_.Column("SELECT * FROM platform.local_object", "name"), Texts{"key"});
  }
}

TEST_F(ObjectStorageManagerBuckets, RemovesARowThatIsNotInMemory) {
  EXPECT_TRUE(manager_.RemoveBucket(4711));
  EXPECT_EQ(database_.Statements(), Texts{"DELETE FROM platform.local_bucket where id=4711;"});
  ExpectLine(3, "CObjectStorageManager::RemoveBucket", "[%s]remove object by bucket, bucket[%s] not exist.[%s(%d)]",
             "remove object by bucket, bucket[4711] not exist.");
}

TEST_F(ObjectStorageManagerBuckets, RemovesASet) {
  const BucketInfo first = MakeBucket("set-1");
  const BucketInfo second = MakeBucket("set-2");
  MakeBucket("set-3");
  MakeObject("set-2", "key");
  ASSERT_TRUE(manager_.RemoveBucket(Ids{second.id, first.id}));
  EXPECT_EQ(database_.Statements(), (Texts{"DELETE FROM platform.local_bucket WHERE id IN (" +
                                               std::to_string(first.id) + "," + std::to_string(second.id) + ");",
                                           "DELETE FROM platform.local_object where bucket_name='set-1';",
                                           "DELETE FROM platform.local_object where bucket_name='set-2';"}));
  EXPECT_FALSE(manager_.IsBucketExist("set-1"));
  EXPECT_FALSE(manager_.IsBucketExist("set-2"));
  EXPECT_TRUE(manager_.IsBucketExist("set-3"));
}

TEST_F(ObjectStorageManagerBuckets, RemovesAnEmptySetWithoutStatement) {
  EXPECT_TRUE(manager_.RemoveBucket(Ids{}));
  EXPECT_EQ(database_.Statements(), Texts{});
}

TEST_F(ObjectStorageManagerBuckets, RemovesNoSetThatTheDatabaseRefuses) {
  const BucketInfo bucket = MakeBucket("kept");
  database_.FailStatement(1);
  EXPECT_FALSE(manager_.RemoveBucket(Ids{bucket.id, 4711}));
  ExpectLine(5, "CObjectStorageManager::RemoveBucket", "[%s]remove buckets failed, db operation failed.[%s(%d)]",
             "remove buckets failed, db operation failed.");
  EXPECT_TRUE(manager_.IsBucketExist("kept"));
}

TEST_F(ObjectStorageManagerBuckets, RemovesTheObjectsOfNoBucket) {
  EXPECT_TRUE(manager_.RemoveObjectByBucket(0xFFFFFFFF));
  EXPECT_EQ(database_.Statements(), Texts{});
  ExpectLine(3, "CObjectStorageManager::RemoveObjectByBucket",
             "[%s]remove object by bucket, bucket[%s] not exist.[%s(%d)]",
             "remove object by bucket, bucket[4294967295] not exist.");
}

TEST_F(ObjectStorageManagerBuckets, RemovesTheObjectsAlone) {
  const BucketInfo bucket = MakeBucket("emptied");
  MakeObject("emptied", "key");
  EXPECT_TRUE(manager_.RemoveObjectByBucket(bucket.id));
  EXPECT_EQ(database_.Statements(), Texts{"DELETE FROM platform.local_object where bucket_name='emptied';"});
  EXPECT_TRUE(manager_.IsBucketExist("emptied"));
  ObjectInfo object;
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "emptied"));
}

TEST_F(ObjectStorageManagerBuckets, AreMadeOnceByManyThreads) {
  std::atomic<int> made{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 10; ++round) {
        BucketInfo bucket = Named("parallel-" + std::to_string(round));
        made += manager_.AddBucket(bucket) ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(made, 10);
  EXPECT_EQ(Rows("name").size(), 10U);
}

TEST_F(ObjectStorageManagerBuckets, CanBeMadeAnewBesideTheirRemoval) {
  for (const bool as_set : {false, true}) {
    const BucketInfo bucket = MakeBucket("made anew");
    BucketInfo again = Named("made anew");
    RunBeside(
        "DELETE FROM platform.local_object",
        [&] { EXPECT_TRUE(as_set ? manager_.RemoveBucket(Ids{bucket.id}) : manager_.RemoveBucket(bucket.id)); },
        [&] { EXPECT_TRUE(manager_.AddBucket(again)); });
    BucketInfo found;
    ASSERT_TRUE(manager_.GetBucketByName(found, "made anew"));
    EXPECT_EQ(found.id, again.id);
    EXPECT_EQ(Rows("id"), Texts{std::to_string(again.id)});
    EXPECT_TRUE(manager_.RemoveBucket(again.id));
  }
}

TEST_F(ObjectStorageManagerBuckets, CanBeChangedBesideTheirMaking) {
  BucketInfo bucket = Named("made");
  RunBeside(
      "INSERT", [&] { EXPECT_TRUE(manager_.AddBucket(bucket)); },
      [&] {
        BucketInfo change = Named("made");
        change.id = bucket.id;
        change.location = "changed";
        EXPECT_TRUE(manager_.ModifyBucket(change));
      });
  BucketInfo found;
  ASSERT_TRUE(manager_.GetBucketByName(found, "made"));
  EXPECT_EQ(found.location, "changed");
  EXPECT_EQ(Rows("location"), Texts{"changed"});
}

// Changes and removals of one bucket from many threads: what is left in memory is what is left in the database.
TEST_F(ObjectStorageManagerBuckets, AgreeWithTheDatabaseAfterAScramble) {
  std::atomic<int> added{0};
  std::atomic<int> changed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 20; ++round) {
        const std::string name = "scramble-" + std::to_string(round % 3);
        BucketInfo bucket = Named(name);
        added += manager_.AddBucket(bucket) ? 1 : 0;
        if (manager_.GetBucketByName(bucket, name)) {
          bucket.location = "by " + std::to_string(i) + " in " + std::to_string(round);
          changed += manager_.ModifyBucket(bucket) ? 1 : 0;
          if ((round + i) % 5 == 0) {
            manager_.RemoveBucket(bucket.id);
          }
        }
        std::map<std::string, BucketInfo> all;
        manager_.GetBucketList(all);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_GT(added, 3) << "no bucket was removed and made again";
  EXPECT_GT(changed, 0);
  std::map<std::string, BucketInfo> buckets;
  manager_.GetBucketList(buckets);
  std::map<std::string, std::string> in_memory;
  for (const auto& [name, bucket] : buckets) {
    in_memory[name] = bucket.location + " #" + std::to_string(bucket.id);
  }
  std::map<std::string, std::string> in_database;
  const Texts names = Rows("name");
  const Texts locations = Rows("location");
  const Texts ids = Rows("id");
  for (std::size_t i = 0; i < names.size(); ++i) {
    in_database[names[i]] = locations[i] + " #" + ids[i];
  }
  EXPECT_EQ(in_memory, in_database);
  EXPECT_EQ(names.size(), in_database.size()) << "a name twice";
}

}  // namespace
}  // namespace Tansy::CloudStorage
