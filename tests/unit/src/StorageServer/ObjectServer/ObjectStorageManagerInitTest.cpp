#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CatalogueFixture.h"

namespace Tansy::CloudStorage {
namespace {

using Texts = std::vector<std::string>;

// The catalogue lives as long as the process, so each test loads names of its own.
class ObjectStorageManagerInit : public CatalogueFixture {
 protected:
  void InsertBucket(int id, const std::string& name) {
    EXPECT_TRUE(
        database_.Run("INSERT INTO platform.local_bucket (id, guid, name, acl, location, cycle, size, "
                      "update_time) VALUES (" +
                      std::to_string(id) + ", 'g', '" + name + "', 0, '', 0, 0, '')"));
  }
  void InsertObject(int id, const std::string& bucket_name, const std::string& name) {
    EXPECT_TRUE(
        database_.Run("INSERT INTO platform.local_object (id, guid, name, bucket_name, size, update_time, url) "
                      "VALUES (" +
                      std::to_string(id) + ", 'g', '" + name + "', '" + bucket_name + "', 1, 't', 'u')"));
  }
  void InsertTask(int id, const std::string& task_id, int part_num) {
    EXPECT_TRUE(
        database_.Run("INSERT INTO platform.local_object_task (id, task_id, object_name, bucket_name, size, "
                      "part_num, update_time, url) VALUES (" +
                      std::to_string(id) + ", '" + task_id + "', 'o', 'b', 1, " + std::to_string(part_num) + ", 't" +
                      std::to_string(part_num) + "', 'u')"));
  }
};

TEST_F(ObjectStorageManagerInit, LoadsAnEmptyDatabase) {
  EXPECT_TRUE(manager_.Init());
  EXPECT_EQ(database_.Statements(), (Texts{"SELECT * FROM platform.local_bucket where is_deleted = 0;",
                                           "SELECT * FROM platform.local_object_task where is_deleted = 0"}));
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
}

TEST_F(ObjectStorageManagerInit, LoadsBucketsObjectsAndTasks) {
  InsertBucket(2, "loaded-b");
  InsertBucket(1, "loaded-a''s");
  InsertObject(10, "loaded-a''s", "key");
  InsertObject(11, "loaded-a''s", "other");
  InsertObject(12, "no-bucket", "orphan");
  InsertTask(20, "loaded-task", 2);
  InsertTask(21, "loaded-task", 1);
  InsertTask(22, "second-task", 5);
  ASSERT_TRUE(manager_.Init());
  // One select a bucket, in the order of their names.
  EXPECT_EQ(database_.Statements(),
            (Texts{"SELECT * FROM platform.local_bucket where is_deleted = 0;",
                   "SELECT * FROM platform.local_object where is_deleted = 0 and bucket_name='loaded-a''s';",
                   "SELECT * FROM platform.local_object where is_deleted = 0 and bucket_name='loaded-b';",
                   "SELECT * FROM platform.local_object_task where is_deleted = 0"}));

  EXPECT_TRUE(manager_.IsBucketExist("loaded-a's"));
  EXPECT_TRUE(manager_.IsBucketExist("loaded-b"));
  EXPECT_FALSE(manager_.IsBucketExist("no-bucket"));
  ObjectInfo object;
  ASSERT_TRUE(manager_.GetObjectByName(object, "key", "loaded-a's"));
  EXPECT_EQ(object.id, 10U);
  EXPECT_TRUE(manager_.GetObjectByName(object, "other", "loaded-a's"));
  EXPECT_FALSE(manager_.GetObjectByName(object, "key", "loaded-b"));

  TaskPartSet parts;
  ASSERT_TRUE(manager_.GetAllTask("loaded-task", parts));
  ASSERT_EQ(parts.size(), 2U);
  EXPECT_EQ(parts.begin()->part_num, 1U);
  EXPECT_EQ(parts.rbegin()->part_num, 2U);
  ASSERT_TRUE(manager_.GetAllTask("second-task", parts));
  EXPECT_EQ(parts.size(), 1U);
}

TEST_F(ObjectStorageManagerInit, FailsWithoutBuckets) {
  database_.FailStatementsWith("local_bucket");
  EXPECT_FALSE(manager_.Init());
  ExpectLine(5, "CObjectStorageManager::Init", "[%s]Init failed, query bucket failed.[%s(%d)]",
             "Init failed, query bucket failed.");
  EXPECT_EQ(database_.Statements().size(), 1U);
}

TEST_F(ObjectStorageManagerInit, FailsWithoutObjectsAndKeepsTheBuckets) {
  InsertBucket(1, "kept-a");
  InsertBucket(2, "kept-b");
  InsertObject(10, "kept-a", "key");
  database_.FailStatementsWith("bucket_name='kept-b'");
  EXPECT_FALSE(manager_.Init());
  ExpectLine(5, "CObjectStorageManager::Init", "[%s]Init failed, query bucket failed.[%s(%d)]",
             "Init failed, query bucket failed.");
  EXPECT_EQ(database_.CountStatements("local_object_task"), 0U);
  EXPECT_TRUE(manager_.IsBucketExist("kept-b"));
  ObjectInfo object;
  EXPECT_TRUE(manager_.GetObjectByName(object, "key", "kept-a"));
}

TEST_F(ObjectStorageManagerInit, FailsWithoutTasksAndKeepsTheRest) {
  InsertBucket(1, "kept-c");
  database_.FailStatementsWith("local_object_task");
  EXPECT_FALSE(manager_.Init());
  ExpectLine(5, "CObjectStorageManager::Init", "[%s]Init failed, query object task failed.[%s(%d)]",
             "Init failed, query object task failed.");
  EXPECT_TRUE(manager_.IsBucketExist("kept-c"));
}

TEST_F(ObjectStorageManagerInit, ASecondTimeChangesNothingThatIsThere) {
  InsertBucket(1, "twice");
  InsertObject(10, "twice", "key");
  ASSERT_TRUE(manager_.Init());
  ASSERT_TRUE(database_.Run("UPDATE platform.local_object SET url='changed behind our back'"));
  ASSERT_TRUE(manager_.Init());
  ObjectInfo object;
  ASSERT_TRUE(manager_.GetObjectByName(object, "key", "twice"));
  EXPECT_EQ(object.url, "u");
}

}  // namespace
}  // namespace Tansy::CloudStorage
