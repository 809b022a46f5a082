// The catalogue of a process that shares its database with others, with the schema of tansyd. On PostgreSQL only.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "StorageServer/ObjectServer/BaseDBConn.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/PartUploads.h"
#include "TansyBase/TimeUtil.h"
#include "db_layer/DbLayer.h"
#include "db_layer/SharedDatabase.h"
#include "fakes/ManualClock.h"
#include "fakes/PostgresServer.h"
#include "fakes/TempFolder.h"

namespace Tansy::CloudStorage {
namespace {

using EAdded = CObjectStorageManager::EAdded;
using ERemoved = CObjectStorageManager::ERemoved;
using Texts = std::vector<std::string>;

constexpr std::time_t kFourDays = 4 * 24 * 3600;

class SharedCatalogueTest : public testing::Test {
 protected:
  void SetUp() override {
    MakeSchema();
    AddNode("node", "'infinity'");
    db_layer::SetPostgresPrelude([] { return "SELECT platform.begin_write('node', 'process of node')"; });
    db_layer::DBParam param;
    param.type = db_layer::kPostgresql;
    param.host = server_.GetHost();
    param.user = Tests::CPostgresServer::kUser;
    param.database = Tests::CPostgresServer::kDatabase;
    ASSERT_TRUE(CBaseDBLayerConn::Instance().RegisterModule(param));
    manager_.Share("node");
    ASSERT_TRUE(manager_.Init());
    BucketInfo bucket;
    bucket.name = "bucket";
    ASSERT_TRUE(manager_.AddBucket(bucket));
  }
  void TearDown() override {
    manager_.Share("");
    db_layer::Module_Unregister("platform");
    db_layer::SetPostgresPrelude({});
  }

  void MakeSchema() {
    server_.Empty();
    Texts scripts;
    for (const auto& entry : std::filesystem::directory_iterator(TANSY_POSTGRES_SCHEMA)) {
      scripts.push_back(entry.path().string());
    }
    std::sort(scripts.begin(), scripts.end());
    for (const std::string& script : scripts) {
      server_.Run("SET ROLE tansy; " + Tests::ReadFile(script));
    }
  }
  void AddNode(const std::string& name, const std::string& seen_at) {
    server_.Run("INSERT INTO platform.nodes (name, owner, address, process, seen_at) VALUES ('" + name +
                "', 'owner', '', 'process of " + name + "', " + seen_at + ")");
  }
  // Runs a statement as another node does, whose changes are heard of.
  void RunElsewhere(const std::string& sql) {
    server_.Run("SELECT set_config('tansy.node', 'other', false), set_config('tansy.log_changes', 'on', false); " +
                sql);
  }
  void BeginUpload(const std::string& id) {
    RunElsewhere(
        "INSERT INTO platform.local_upload (object_url, object_name, bucket_name, sort_key, attributes, begun, "
        "update_time) VALUES ('" +
        id + "', 'o', 'bucket', '', '', '', '')");
  }
  // The time of the database, and not that of a node, says how old an upload is.
  void MakeOld(const std::string& id) {
    server_.Run(
        "UPDATE platform.local_upload SET update_time = to_char(now() AT TIME ZONE 'UTC' - interval '4 days', "
        "'YYYY-MM-DD HH24:MI:SS') WHERE object_url = '" +
        id + "'");
  }
  Texts Uploads() { return server_.Rows("SELECT object_url FROM platform.local_upload ORDER BY 1"); }

  static ObjectInfo Object(const std::string& url) {
    ObjectInfo object;
    object.guid = "guid";
    object.name = "o";
    object.bucket_name = "bucket";
    object.size = 4;
    object.update_time = "2026-11-03 08:00:00";
    object.url = url;
    return object;
  }
  EAdded Add(const ObjectInfo& object, const CObjectStorageManager::MayAdd& may_add) {
    std::promise<EAdded> result;
    manager_.AddObject(object, {{}, "attributes"}, may_add, [&result](EAdded value) { result.set_value(value); });
    return result.get_future().get();
  }
  Texts Urls() { return server_.Rows("SELECT url FROM platform.local_object"); }

  Tests::CPostgresServer& server_ = Tests::CPostgresServer::Shared();
  CObjectStorageManager& manager_ = CObjectStorageManager::Instance();
};

TEST_F(SharedCatalogueTest, TheDatabaseSaysHowOldAnUploadIsAndNotAClockThatIsWrong) {
  for (const std::time_t wrong : {kFourDays, -kFourDays}) {
    const Tests::CManualClock clock(std::time(nullptr) + wrong);
    server_.Run("DELETE FROM platform.local_upload");
    BeginUpload("fresh");
    BeginUpload("old");
    MakeOld("old");
    CPartUploadSweep sweep;
    sweep.Start();
    sweep.Run();
    EXPECT_EQ(Uploads(), (Texts{"fresh"}));
  }
}

TEST_F(SharedCatalogueTest, OneNodeEndsUploadsForAll) {
  AddNode("first", "'infinity'");
  BeginUpload("old");
  MakeOld("old");
  CPartUploadSweep sweep;
  sweep.Start();
  sweep.Run();
  EXPECT_EQ(Uploads(), (Texts{"old"}));
  server_.Run("UPDATE platform.nodes SET seen_at = now() - interval '1 minute' WHERE name = 'first'");
  sweep.Run();
  EXPECT_EQ(Uploads(), Texts());
}

// The age of an upload of the object protocol counts from what the database said, also after a start.
TEST_F(SharedCatalogueTest, TasksAreDatedByTheDatabase) {
  const Tests::CManualClock clock(std::time(nullptr) - kFourDays);
  ObjectTaskInfo task;
  task.task_id = "task";
  task.bucket_name = "bucket";
  task.object_name = "o";
  task.part_num = 1;
  task.update_time = TansyBase::TimeUtil::TimeT2StrUTCDatetime(clock.Now());
  task.url = "url";
  ASSERT_TRUE(manager_.AddObjectTask(task));
  EXPECT_EQ(server_.Rows("SELECT count(*) FROM platform.local_object_task WHERE update_time >= "
                         "to_char(now() AT TIME ZONE 'UTC' - interval '1 hour', 'YYYY-MM-DD HH24:MI:SS')"),
            (Texts{"1"}));
  EXPECT_TRUE(manager_.RemoveObjectTask("task"));
}

TEST_F(SharedCatalogueTest, AConditionThatHoldsOnWhatAnotherNodeStoredMeanwhileIsNoFailure) {
  EXPECT_EQ(Add(Object("first"), {}), EAdded::kAdded);
  int asked = 0;
  const auto may_add = [&](const ObjectInfo* there, const std::string&) {
    EXPECT_NE(there, nullptr);
    if (++asked <= 3) {
      RunElsewhere("UPDATE platform.local_object SET url = 'elsewhere " + std::to_string(asked) + "'");
    }
    return true;
  };
  EXPECT_EQ(Add(Object("second"), may_add), EAdded::kAdded);
  EXPECT_EQ(Urls(), (Texts{"second"}));
  EXPECT_GT(asked, 3);
}

TEST_F(SharedCatalogueTest, AConditionThatHoldsNoMoreIsRefused) {
  EXPECT_EQ(Add(Object("first"), {}), EAdded::kAdded);
  bool is_first = true;
  const auto is_first_url = [&](const ObjectInfo* there, const std::string&) {
    const bool holds = there != nullptr && there->url == "first";
    if (std::exchange(is_first, false)) {
      RunElsewhere("UPDATE platform.local_object SET url = 'elsewhere'");
    }
    return holds;
  };
  EXPECT_EQ(Add(Object("second"), is_first_url), EAdded::kRefused);
  EXPECT_EQ(Urls(), (Texts{"elsewhere"}));
  // One that was removed, or that was not there before.
  bool was_there = true;
  const auto remove = [&](const ObjectInfo* there, const std::string&) {
    was_there = there != nullptr;
    RunElsewhere("DELETE FROM platform.local_object");
    return true;
  };
  EXPECT_EQ(Add(Object("third"), remove), EAdded::kAdded);
  EXPECT_FALSE(was_there);
  EXPECT_EQ(Urls(), (Texts{"third"}));
}

// Between the look at an object and the statement it may come and go, which memory does not show afterwards.
TEST_F(SharedCatalogueTest, AnObjectThatCameAndWentMeanwhileIsNoFailure) {
  // The statement runs twice for each try: with the others of its transaction, and alone.
  server_.Run(
      "SET ROLE tansy; CREATE SEQUENCE platform.looks; "
      "CREATE OR REPLACE FUNCTION platform.expect_object(bucket text, object text, expected text) RETURNS void "
      "LANGUAGE plpgsql AS $$ BEGIN IF nextval('platform.looks') <= 2 THEN RAISE EXCEPTION 'object % has changed', "
      "object; END IF; END $$");
  int asked = 0;
  const auto may_add = [&](const ObjectInfo* there, const std::string&) {
    if (++asked == 1) {
      RunElsewhere(
          "INSERT INTO platform.local_object (id, guid, name, bucket_name, size, update_time, url) "
          "VALUES (1000, '', 'o', 'bucket', 1, '', 'elsewhere'); DELETE FROM platform.local_object");
    }
    return there == nullptr;
  };
  EXPECT_EQ(Add(Object("first"), may_add), EAdded::kAdded);
  EXPECT_EQ(Urls(), (Texts{"first"}));
  EXPECT_EQ(server_.Rows("SELECT last_value FROM platform.looks"), (Texts{"3"}));
}

TEST_F(SharedCatalogueTest, ARemovalWhoseConditionHoldsOnWhatAnotherNodeStoredMeanwhileIsNoFailure) {
  EXPECT_EQ(Add(Object("first"), {}), EAdded::kAdded);
  int asked = 0;
  const auto may_remove = [&](const ObjectInfo* there, const std::string&) {
    if (++asked <= 5) {
      RunElsewhere("UPDATE platform.local_object SET url = 'elsewhere " + std::to_string(asked) + "'");
    }
    return there != nullptr;
  };
  EXPECT_EQ(manager_.RemoveKeys({"o"}, "bucket", may_remove), ERemoved::kRemoved);
  EXPECT_EQ(Urls(), Texts());
  EXPECT_GT(asked, 5);
}

TEST_F(SharedCatalogueTest, ARemovalThatTheDatabaseRefusesFailsOnce) {
  EXPECT_EQ(Add(Object("first"), {}), EAdded::kAdded);
  server_.Run(
      "SET ROLE tansy; CREATE OR REPLACE FUNCTION platform.expect_object(bucket text, object text, "
      "expected text) RETURNS void LANGUAGE plpgsql AS $$ BEGIN RAISE EXCEPTION 'never'; END $$");
  int asked = 0;
  const auto may_remove = [&](const ObjectInfo*, const std::string&) { return ++asked > 0; };
  EXPECT_EQ(manager_.RemoveKeys({"o"}, "bucket", may_remove), ERemoved::kFailed);
  EXPECT_LE(asked, 2);
  EXPECT_EQ(Urls(), (Texts{"first"}));
}

// What the database refuses for another reason is not tried again.
TEST_F(SharedCatalogueTest, AWriteThatTheDatabaseRefusesFailsOnce) {
  server_.Run("INSERT INTO platform.freed_bytes (url, freed_at) VALUES ('freed', 0)");
  int asked = 0;
  const auto may_add = [&](const ObjectInfo*, const std::string&) { return ++asked > 0; };
  EXPECT_EQ(Add(Object("freed"), may_add), EAdded::kFailed);
  EXPECT_LE(asked, 2);
}

}  // namespace
}  // namespace Tansy::CloudStorage
