#include "StorageServer/ObjectServer/ObjectServerSession.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CatalogueFixture.h"

namespace Tansy::CloudStorage {
namespace {

using ObjectsByName = std::map<std::string, ObjectInfo>;

bool QueryObjects(ObjectsByName& objects, const std::string& bucket) {
  return CObjectServerSession::QueryObject([&](const ObjectInfo& object) { objects.emplace(object.name, object); },
                                           bucket);
}

using Texts = std::vector<std::string>;

constexpr std::uint32_t kInvalidId = 0xFFFFFFFF;

class ObjectServerSession : public CatalogueFixture {
 protected:
  // Records with a quote in every text that clients or hosts choose.
  static BucketInfo QuotedBucket() {
    BucketInfo bucket;
    bucket.id = 99;
    bucket.guid = "gu'id";
    bucket.name = "it's";
    bucket.reserve = "never stored";
    bucket.acl = 5;
    bucket.location = "lo'c";
    bucket.cycle = 30;
    bucket.size = 1024;
    bucket.flag = 1;
    return bucket;
  }
  static ObjectInfo QuotedObject() {
    ObjectInfo object;
    object.id = 99;
    object.guid = "gu'id";
    object.name = "ke'y";
    object.bucket_name = "it's";
    object.size = 12345;
    object.update_time = "2026-11-03 08:05:09";
    object.url = "fs01ab-cd-ef.d";
    return object;
  }
  static ObjectTaskInfo QuotedTask() {
    ObjectTaskInfo task;
    task.id = 99;
    task.task_id = "ta'sk";
    task.object_name = "ke'y";
    task.bucket_name = "it's";
    task.size = 500;
    task.part_num = 3;
    task.update_time = "ti'me";
    task.url = "u'rl";
    return task;
  }

  std::string One(const std::string& table, const std::string& column) {
    const Texts values = database_.Column("SELECT * FROM " + table, column);
    EXPECT_EQ(values.size(), 1U) << table;
    return values.empty() ? std::string() : values[0];
  }
};

TEST_F(ObjectServerSession, TakesIdsFromTheSequence) {
  const std::uint32_t first =
      CObjectServerSession::QueryNextID("platform.local_bucket_id_seq", "platform.local_bucket");
  EXPECT_NE(first, kInvalidId);
  EXPECT_GT(CObjectServerSession::QueryNextID("platform.local_bucket_id_seq", "platform.local_bucket"), first);
  EXPECT_EQ(CountLines(logging::kNotable), 0U);
}

TEST_F(ObjectServerSession, LogsASequenceWithoutConnection) {
  LoseConnections();
  EXPECT_EQ(CObjectServerSession::QueryNextID("seq", "tab"), kInvalidId);
  ExpectLine(5, "CObjectServerSession::QueryNextID", "[%s]%s apply conn failed[%s(%d)]",
             "Tansy::CloudStorage::CObjectServerSession::QueryNextID apply conn failed");
}

TEST_F(ObjectServerSession, LogsASequenceThatFails) {
  database_.FailStatement(1);
  EXPECT_EQ(CObjectServerSession::QueryNextID("platform.some_seq", "platform.some"), kInvalidId);
  ExpectLine(4, "CObjectServerSession::QueryNextID", "[%s]NEXT_VAL failedseq:%s  table_name:%s [%s(%d)]",
             "NEXT_VAL failedseq:platform.some_seq  table_name:platform.some ");
}

TEST_F(ObjectServerSession, GivesNoIdTwiceToManyThreads) {
  std::vector<std::vector<std::uint32_t>> taken(4);
  std::vector<std::thread> threads;
  for (auto& ids : taken) {
    threads.emplace_back([&ids] {
      for (int i = 0; i < 50; ++i) {
        ids.push_back(CObjectServerSession::QueryNextID("platform.local_object_id_seq", "platform.local_object"));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::set<std::uint32_t> all;
  for (const auto& ids : taken) {
    all.insert(ids.begin(), ids.end());
  }
  EXPECT_EQ(all.size(), 200U);
  EXPECT_FALSE(all.contains(kInvalidId));
}

TEST_F(ObjectServerSession, InsertsABucket) {
  BucketInfo bucket = QuotedBucket();
  ASSERT_TRUE(CObjectServerSession::CreateBucket(bucket));
  EXPECT_NE(bucket.id, 99U);
  EXPECT_EQ(bucket.acl, 0U);
  EXPECT_EQ(Changes(), Texts{"INSERT INTO platform.local_bucket (id, guid, name, acl, location, cycle, size, "
                             "update_time) VALUES (" +
                             std::to_string(bucket.id) +
                             ", 'gu''id', 'it''s', 0, 'lo''c', 30, 1024, '2026-11-03 08:05:09.000') "});
  EXPECT_EQ(database_.Statements().at(0), "SELECT nextval('platform.local_bucket_id_seq')");
  EXPECT_EQ(One("platform.local_bucket", "name"), "it's");
  EXPECT_EQ(One("platform.local_bucket", "update_time"), kNow);
  EXPECT_EQ(One("platform.local_bucket", "is_deleted"), "0");
}

TEST_F(ObjectServerSession, InsertsNoBucketWithoutId) {
  database_.FailStatementsWith("nextval");
  BucketInfo bucket = QuotedBucket();
  EXPECT_FALSE(CObjectServerSession::CreateBucket(bucket));
  ExpectLine(5, "CObjectServerSession::CreateBucket", "[%s]CreateBucket failed, query next id failed[%s(%d)]",
             "CreateBucket failed, query next id failed");
  ExpectLine(4, "CObjectServerSession::QueryNextID", "[%s]NEXT_VAL failedseq:%s  table_name:%s [%s(%d)]",
             "NEXT_VAL failedseq:platform.local_bucket_id_seq  table_name:platform.local_bucket ");
  EXPECT_EQ(Changes(), Texts{});
  EXPECT_EQ(bucket.id, 99U);
  EXPECT_EQ(bucket.acl, 5U);
}

TEST_F(ObjectServerSession, SaysThatABucketWasRefused) {
  database_.FailStatementsWith("INSERT");
  BucketInfo bucket = QuotedBucket();
  EXPECT_FALSE(CObjectServerSession::CreateBucket(bucket));
}

TEST_F(ObjectServerSession, UpdatesABucket) {
  BucketInfo bucket = QuotedBucket();
  ASSERT_TRUE(CObjectServerSession::CreateBucket(bucket));
  database_.ForgetStatements();
  clock_.Advance(1);
  bucket.name = "new'name";
  bucket.location = "o'ther";
  bucket.cycle = 31;
  bucket.size = 2048;
  bucket.guid = "ignored";
  ASSERT_TRUE(CObjectServerSession::ModifyBucket(bucket));
  EXPECT_EQ(Changes(), Texts{"UPDATE platform.local_bucket SET name='new''name', location='o''ther', cycle=31, "
                             "size=2048, update_time='2026-11-03 08:05:10.000' where id=" +
                             std::to_string(bucket.id) + ";"});
  EXPECT_EQ(One("platform.local_bucket", "name"), "new'name");
  EXPECT_EQ(One("platform.local_bucket", "guid"), "gu'id");
}

TEST_F(ObjectServerSession, DeletesABucket) {
  EXPECT_TRUE(CObjectServerSession::DeleteBucket(7));
  EXPECT_EQ(Changes(), Texts{"DELETE FROM platform.local_bucket where id=7;"});
  database_.FailStatement(1);
  EXPECT_FALSE(CObjectServerSession::DeleteBucket(7));
}

TEST_F(ObjectServerSession, DeletesASetOfBuckets) {
  EXPECT_TRUE(CObjectServerSession::DeleteBuckets({10, 2, 33}));
  EXPECT_TRUE(CObjectServerSession::DeleteBuckets({5}));
  EXPECT_EQ(Changes(), (Texts{"DELETE FROM platform.local_bucket WHERE id IN (2,10,33);",
                              "DELETE FROM platform.local_bucket WHERE id IN (5);"}));
  database_.FailStatement(1);
  EXPECT_FALSE(CObjectServerSession::DeleteBuckets({10, 2, 33}));
}

// The row of a bucket is found under the number that its insert wrote, one by one and as a set.
TEST_F(ObjectServerSession, DeletesASetOfBucketsWithIdsBeyondASignedNumber) {
  ASSERT_TRUE(database_.SetNextValue("platform.local_bucket_id_seq", 2147483648));
  BucketInfo bucket = QuotedBucket();
  BucketInfo other = QuotedBucket();
  ASSERT_TRUE(CObjectServerSession::CreateBucket(bucket));
  ASSERT_TRUE(CObjectServerSession::CreateBucket(other));
  ASSERT_EQ(bucket.id, 0x80000000U);
  EXPECT_EQ(database_.Column("SELECT id FROM platform.local_bucket", "id").size(), 2U);
  EXPECT_TRUE(CObjectServerSession::DeleteBuckets({bucket.id, other.id}));
  EXPECT_EQ(database_.Column("SELECT id FROM platform.local_bucket", "id"), Texts{});
}

TEST_F(ObjectServerSession, DeletesNothingForAnEmptySet) {
  LoseConnections();
  EXPECT_TRUE(CObjectServerSession::DeleteBuckets({}));
  EXPECT_EQ(database_.Statements(), Texts{});
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
}

TEST_F(ObjectServerSession, LoadsBuckets) {
  BucketInfo bucket = QuotedBucket();
  ASSERT_TRUE(CObjectServerSession::CreateBucket(bucket));
  ASSERT_TRUE(
      database_.Run("INSERT INTO platform.local_bucket (id, guid, name, acl, location, cycle, size, update_time,"
                    " is_deleted) VALUES (500, 'g', 'gone', 0, '', 0, 0, '', 1), (501, 'g', 'gone too', 0, '', "
                    "0, 0, '', -1), (502, 'g2', 'second', 4, 'l2', 5, 6, '', 0)"));
  StartOver();
  std::map<std::string, BucketInfo> buckets;
  ASSERT_TRUE(CObjectServerSession::QueryBucket(buckets));
  EXPECT_EQ(Changes(), Texts{"SELECT * FROM platform.local_bucket where is_deleted = 0;"});
  ASSERT_EQ(buckets.size(), 2U);
  const BucketInfo& loaded = buckets.at("it's");
  EXPECT_EQ(loaded.id, bucket.id);
  EXPECT_EQ(loaded.guid, "gu'id");
  EXPECT_EQ(loaded.name, "it's");
  EXPECT_EQ(loaded.reserve, "");
  EXPECT_EQ(loaded.acl, 0U);
  EXPECT_EQ(loaded.location, "lo'c");
  EXPECT_EQ(loaded.cycle, 30U);
  EXPECT_EQ(loaded.size, 1024U);
  EXPECT_EQ(loaded.flag, 0U);
  EXPECT_EQ(buckets.at("second").acl, 4U);
  EXPECT_EQ(log_->Count("[%s]get exist bucket:[%s].[%s(%d)]", 3), 2U);
  EXPECT_TRUE(log_->Text("[%s]get exist bucket:[%s].[%s(%d)]")
                  .starts_with("[Tansy::CloudStorage::CObjectServerSession::QueryBucket]get exist bucket:[second].["));
}

TEST_F(ObjectServerSession, AddsBucketsToWhatTheMapHolds) {
  BucketInfo bucket = QuotedBucket();
  ASSERT_TRUE(CObjectServerSession::CreateBucket(bucket));
  std::map<std::string, BucketInfo> buckets;
  buckets["it's"].location = "held already";
  buckets["other"].location = "held too";
  ASSERT_TRUE(CObjectServerSession::QueryBucket(buckets));
  EXPECT_EQ(buckets.size(), 2U);
  EXPECT_EQ(buckets["it's"].location, "held already");
}

TEST_F(ObjectServerSession, LogsSelectsThatFail) {
  constexpr const char* kFormat = "[%s]%s failed, errorcode:%d, errorinfo:%s[%s(%d)]";
  const auto expect = [&](const std::string& name) {
    ExpectLine(
        5, "CObjectServerSession::" + name, kFormat,
        "Tansy::CloudStorage::CObjectServerSession::" + name + " failed, errorcode:4711, errorinfo:injected failure");
    log_->Clear();
  };
  database_.FailStatementsWith("SELECT");
  std::map<std::string, BucketInfo> buckets;
  EXPECT_FALSE(CObjectServerSession::QueryBucket(buckets));
  expect("QueryBucket");
  ObjectsByName objects;
  EXPECT_FALSE(QueryObjects(objects, "bucket"));
  expect("QueryObject");
  std::vector<ObjectTaskInfo> tasks;
  EXPECT_FALSE(CObjectServerSession::GetAllObjectTask(tasks));
  expect("GetAllObjectTask");
  std::string url = "as it was";
  EXPECT_FALSE(CObjectServerSession::GetUrlByEncryptUrl(url, "abcd"));
  expect("GetUrlByEncryptUrl");
  EXPECT_EQ(url, "as it was");
}

TEST_F(ObjectServerSession, SelectsWithoutConnectionLogNothingOfTheirOwn) {
  LoseConnections();
  std::map<std::string, BucketInfo> buckets;
  ObjectsByName objects;
  std::vector<ObjectTaskInfo> tasks;
  std::string url;
  EXPECT_FALSE(CObjectServerSession::QueryBucket(buckets));
  EXPECT_FALSE(QueryObjects(objects, "bucket"));
  EXPECT_FALSE(CObjectServerSession::GetAllObjectTask(tasks));
  EXPECT_FALSE(CObjectServerSession::GetUrlByEncryptUrl(url, "abcd"));
  EXPECT_EQ(log_->Count("[%s]apply conn failed[%s(%d)]", 5), 4U);
  for (const Tests::LogLine& line : log_->Lines()) {
    EXPECT_FALSE(line.text.find("CObjectServerSession") != std::string::npos) << line.text;
  }
}

TEST_F(ObjectServerSession, InsertsAnObject) {
  ObjectInfo object = QuotedObject();
  ASSERT_TRUE(CObjectServerSession::CreateObject(object));
  EXPECT_NE(object.id, 99U);
  EXPECT_EQ(database_.Statements().at(0), "SELECT nextval('platform.local_object_id_seq')");
  EXPECT_EQ(Changes(), Texts{"INSERT INTO platform.local_object (id, guid, name, bucket_name, size, update_time, url) "
                             "VALUES (" +
                             std::to_string(object.id) +
                             ", 'gu''id', 'ke''y', 'it''s', 12345, '2026-11-03 08:05:09', 'fs01ab-cd-ef.d') "});
  EXPECT_EQ(One("platform.local_object", "name"), "ke'y");
  EXPECT_EQ(One("platform.local_object", "bucket_name"), "it's");
}

TEST_F(ObjectServerSession, InsertsTimeAndUrlOfAnObjectAsTheyAre) {
  database_.FailStatementsWith("INSERT");  // what SQL makes of it does not matter here
  ObjectInfo object = QuotedObject();
  object.update_time = "a'b";
  object.url = "c''d";
  EXPECT_FALSE(CObjectServerSession::CreateObject(object));
  EXPECT_TRUE(Changes().at(0).ends_with(", 'a'b', 'c''d') ")) << Changes().at(0);
}

TEST_F(ObjectServerSession, InsertsNoObjectWithoutId) {
  database_.FailStatementsWith("nextval");
  ObjectInfo object = QuotedObject();
  EXPECT_FALSE(CObjectServerSession::CreateObject(object));
  ExpectLine(5, "CObjectServerSession::CreateObject", "[%s]CreateBucket failed, query next id failed[%s(%d)]",
             "CreateBucket failed, query next id failed");
  EXPECT_EQ(Changes(), Texts{});
  EXPECT_EQ(object.id, 99U);
}

TEST_F(ObjectServerSession, UpdatesAnObject) {
  ObjectInfo object = QuotedObject();
  ASSERT_TRUE(CObjectServerSession::CreateObject(object));
  database_.ForgetStatements();
  object.size = 54321;
  object.update_time = "ti'me";
  object.url = "u'rl";
  object.name = "not written";
  ASSERT_TRUE(CObjectServerSession::UpdateObject(object));
  EXPECT_EQ(Changes(),
            Texts{"UPDATE platform.local_object set size=54321, update_time='ti''me', url='u''rl' where id=" +
                  std::to_string(object.id) + " ;"});
  EXPECT_EQ(One("platform.local_object", "url"), "u'rl");
  EXPECT_EQ(One("platform.local_object", "name"), "ke'y");
}

TEST_F(ObjectServerSession, DeletesObjects) {
  EXPECT_TRUE(CObjectServerSession::DeleteObject(12));
  EXPECT_TRUE(CObjectServerSession::DeleteObjectByBucket("it's"));
  EXPECT_EQ(Changes(), (Texts{"DELETE FROM platform.local_object where id=12",
                              "DELETE FROM platform.local_object where bucket_name='it''s';"}));
}

TEST_F(ObjectServerSession, LoadsTheObjectsOfABucket) {
  ObjectInfo object = QuotedObject();
  ASSERT_TRUE(CObjectServerSession::CreateObject(object));
  ASSERT_TRUE(
      database_.Run("INSERT INTO platform.local_object (id, guid, name, bucket_name, size, update_time, url, "
                    "is_deleted) VALUES (500, '', 'gone', 'it''s', 0, '', '', 1), (501, '', 'elsewhere', "
                    "'its', 0, '', '', 0), (502, '', 'a', 'it''s', 7, 't', 'u', 0)"));
  StartOver();
  ObjectsByName objects;
  ASSERT_TRUE(QueryObjects(objects, "it's"));
  EXPECT_EQ(Changes(), Texts{"SELECT * FROM platform.local_object where is_deleted = 0 and bucket_name='it''s';"});
  ASSERT_EQ(objects.size(), 2U);
  EXPECT_EQ(objects.begin()->second.name, "a");
  const ObjectInfo& loaded = objects.rbegin()->second;
  EXPECT_EQ(loaded.id, object.id);
  EXPECT_EQ(loaded.guid, "gu'id");
  EXPECT_EQ(loaded.name, "ke'y");
  EXPECT_EQ(loaded.bucket_name, "it's");
  EXPECT_EQ(loaded.size, 12345U);
  EXPECT_EQ(loaded.update_time, "2026-11-03 08:05:09");
  EXPECT_EQ(loaded.url, "fs01ab-cd-ef.d");
}

// What 32 bits make of a size on its way to the database and back.
struct StoredSize {
  std::uint64_t size;
  const char* written;
  std::uint64_t loaded;
};

class ObjectServerSessionSizes : public ObjectServerSession, public testing::WithParamInterface<StoredSize> {};

TEST_P(ObjectServerSessionSizes, KeepTheLow32Bits) {
  ObjectInfo object = QuotedObject();
  object.size = GetParam().size;
  ASSERT_TRUE(CObjectServerSession::CreateObject(object));
  EXPECT_NE(Changes().at(0).find(std::string(", ") + GetParam().written + ", '2026"), std::string::npos)
      << Changes().at(0);
  EXPECT_EQ(object.size, GetParam().size) << "the record keeps all of it";
  ASSERT_TRUE(CObjectServerSession::UpdateObject(object));
  EXPECT_NE(Changes().at(1).find(std::string(" set size=") + GetParam().written + ", update_time"), std::string::npos)
      << Changes().at(1);
  ObjectsByName objects;
  ASSERT_TRUE(QueryObjects(objects, "it's"));
  ASSERT_EQ(objects.size(), 1U);
  EXPECT_EQ(objects.begin()->second.size, GetParam().loaded);
}

INSTANTIATE_TEST_SUITE_P(Borders, ObjectServerSessionSizes,
                         testing::Values(StoredSize{0, "0", 0}, StoredSize{0x7FFFFFFF, "2147483647", 0x7FFFFFFF},
                                         StoredSize{0x80000000, "-2147483648", 0x80000000},
                                         StoredSize{0xFFFFFFFF, "-1", 0xFFFFFFFF}, StoredSize{0x100000000, "0", 0},
                                         StoredSize{0x180000005, "-2147483643", 0x80000005}));

TEST_F(ObjectServerSession, InsertsATask) {
  ObjectTaskInfo task = QuotedTask();
  ASSERT_TRUE(CObjectServerSession::InsertObjectTask(task));
  EXPECT_NE(task.id, 99U);
  EXPECT_EQ(database_.Statements().at(0), "SELECT nextval('platform.local_object_task_id_seq')");
  EXPECT_EQ(Changes(), Texts{"INSERT INTO platform.local_object_task (id, task_id, object_name, bucket_name, size, "
                             "part_num, update_time, url) values (" +
                             std::to_string(task.id) + ", 'ta''sk', 'ke''y', 'it''s', 500, 3, 'ti''me', 'u''rl')"});
  EXPECT_EQ(One("platform.local_object_task", "task_id"), "ta'sk");
  ExpectLine(3, "CObjectServerSession::InsertObjectTask", "[%s]InsertObjectTask, query next id[%d][%s(%d)]",
             "InsertObjectTask, query next id[" + std::to_string(task.id) + "]");
}

TEST_F(ObjectServerSession, InsertsNoTaskWithoutId) {
  database_.FailStatementsWith("nextval");
  ObjectTaskInfo task = QuotedTask();
  EXPECT_FALSE(CObjectServerSession::InsertObjectTask(task));
  ExpectLine(3, "CObjectServerSession::InsertObjectTask", "[%s]InsertObjectTask, query next id[%d][%s(%d)]",
             "InsertObjectTask, query next id[-1]");
  ExpectLine(5, "CObjectServerSession::InsertObjectTask", "[%s]InsertObjectTask failed, query next id failed[%s(%d)]",
             "InsertObjectTask failed, query next id failed");
  EXPECT_EQ(Changes(), Texts{});
  EXPECT_EQ(task.id, 99U);
}

TEST_F(ObjectServerSession, UpdatesAndDeletesATask) {
  ObjectTaskInfo task = QuotedTask();
  ASSERT_TRUE(CObjectServerSession::InsertObjectTask(task));
  database_.ForgetStatements();
  task.size = 0xFFFFFFFE;
  ASSERT_TRUE(CObjectServerSession::UpdateObjectTask(task));
  ASSERT_TRUE(CObjectServerSession::DeleteObjectTask("ta'sk"));
  EXPECT_EQ(Changes(), (Texts{"UPDATE platform.local_object_task set size=-2, update_time='ti''me', url='u''rl' where "
                              "id=" +
                                  std::to_string(task.id),
                              "DELETE FROM platform.local_object_task WHERE task_id = 'ta''sk' "}));
  EXPECT_EQ(database_.Column("SELECT * FROM platform.local_object_task", "id"), Texts{});
}

TEST_F(ObjectServerSession, LoadsTasks) {
  ObjectTaskInfo task = QuotedTask();
  task.size = 0x90000000;
  ASSERT_TRUE(CObjectServerSession::InsertObjectTask(task));
  ASSERT_TRUE(
      database_.Run("INSERT INTO platform.local_object_task (id, task_id, object_name, bucket_name, size, "
                    "part_num, update_time, url, is_deleted) VALUES (500, 'gone', '', '', 0, 1, '', '', 1)"));
  StartOver();
  std::vector<ObjectTaskInfo> tasks(1);
  ASSERT_TRUE(CObjectServerSession::GetAllObjectTask(tasks));
  EXPECT_EQ(Changes(), Texts{"SELECT * FROM platform.local_object_task where is_deleted = 0"});
  ASSERT_EQ(tasks.size(), 2U) << "added to what the list holds";
  EXPECT_EQ(tasks[1].id, task.id);
  EXPECT_EQ(tasks[1].task_id, "ta'sk");
  EXPECT_EQ(tasks[1].object_name, "ke'y");
  EXPECT_EQ(tasks[1].bucket_name, "it's");
  EXPECT_EQ(tasks[1].size, 0x90000000U);
  EXPECT_EQ(tasks[1].part_num, 3U);
  EXPECT_EQ(tasks[1].update_time, "ti'me");
  EXPECT_EQ(tasks[1].url, "u'rl");
}

TEST_F(ObjectServerSession, FindsTheUrlOfAKey) {
  ASSERT_TRUE(database_.Run("INSERT INTO platform.picture_url_encrypt (encrypt_url, url) VALUES ('fs''1', './v1\\')"));
  std::string url = "old";
  ASSERT_TRUE(CObjectServerSession::GetUrlByEncryptUrl(url, "fs'1"));
  EXPECT_EQ(url, "./v1\\");
  EXPECT_EQ(Changes(), Texts{"SELECT * FROM platform.picture_url_encrypt where encrypt_url='fs''1'"});
}

TEST_F(ObjectServerSession, LeavesTheUrlOfAnUnknownKeyAsItIs) {
  std::string url = "old";
  EXPECT_TRUE(CObjectServerSession::GetUrlByEncryptUrl(url, "none"));
  EXPECT_EQ(url, "old");
}

TEST_F(ObjectServerSession, LetsTheLastOfSeveralUrlsWin) {
  ASSERT_TRUE(database_.Run("DROP TABLE platform.picture_url_encrypt"));
  ASSERT_TRUE(database_.Run("CREATE TABLE platform.picture_url_encrypt (encrypt_url TEXT, url TEXT)"));
  ASSERT_TRUE(database_.Run("INSERT INTO platform.picture_url_encrypt VALUES ('fs01', 'one'), ('fs01', 'two')"));
  std::string url;
  ASSERT_TRUE(CObjectServerSession::GetUrlByEncryptUrl(url, "fs01"));
  EXPECT_EQ(url, "two");
}

// Texts that try to leave their quotes. Each must come back as it went in, and the table must still be there.
TEST_F(ObjectServerSession, KeepsHostileTextsInsideTheirQuotes) {
  const Texts hostile = {"'; DROP TABLE platform.local_bucket; --",
                         "\\",
                         "\\'",
                         "''",
                         "'",
                         "%s%d%n",
                         "a\nb",
                         "--",
                         "/*",
                         std::string(100000, '\'')};
  for (const std::string& text : hostile) {
    BucketInfo bucket = QuotedBucket();
    bucket.name = text;
    bucket.location = text;
    ASSERT_TRUE(CObjectServerSession::CreateBucket(bucket));
    ASSERT_TRUE(CObjectServerSession::ModifyBucket(bucket));
    ObjectInfo object = QuotedObject();
    object.bucket_name = text;
    object.name = text;
    ASSERT_TRUE(CObjectServerSession::CreateObject(object));
    ObjectsByName objects;
    ASSERT_TRUE(QueryObjects(objects, text));
    ASSERT_EQ(objects.size(), 1U) << text.substr(0, 50);
    EXPECT_EQ(objects.begin()->second.name, text);
    std::string url;
    EXPECT_TRUE(CObjectServerSession::GetUrlByEncryptUrl(url, text));
    ObjectTaskInfo task = QuotedTask();
    task.task_id = text;
    ASSERT_TRUE(CObjectServerSession::InsertObjectTask(task));
    ASSERT_TRUE(CObjectServerSession::DeleteObjectTask(text));
    ASSERT_TRUE(CObjectServerSession::DeleteObjectByBucket(text));
  }
  std::map<std::string, BucketInfo> buckets;
  ASSERT_TRUE(CObjectServerSession::QueryBucket(buckets));
  EXPECT_EQ(buckets.size(), hostile.size());
  for (const std::string& text : hostile) {
    EXPECT_TRUE(buckets.contains(text)) << text.substr(0, 50);
  }
  EXPECT_EQ(database_.Column("SELECT * FROM platform.local_object", "id"), Texts{});
}

}  // namespace
}  // namespace Tansy::CloudStorage
