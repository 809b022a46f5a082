#include "Housekeeping.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "Catalogue.h"
#include "Check.h"
#include "FileStore.h"
#include "FirstParts.h"
#include "Schema.h"
#include "StartFailure.h"
#include "db_layer/DbLayer.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::time_t kFarFuture = 4000000000;

// A data folder with a catalogue and a store, entered as tansyd enters its own.
class CatalogueTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::current_path(temp_.GetPath());
    PrepareSqliteSchema("catalogue.db", SqliteSchemaScripts(), FileStoreVolumes());
    db_layer::DBParam param;
    param.database = "catalogue.db";
    ASSERT_TRUE(db_layer::Module_Register(param, "platform"));
    store_ = OpenFileStore("objects", false);
  }
  void TearDown() override {
    db_layer::Module_Unregister("platform");
    std::filesystem::current_path(started_in_);
  }

  static void Run(const std::string& sql) {
    db_layer::CConnect* connection = db_layer::DBLayer_ApplyConn("platform");
    ASSERT_NE(connection, nullptr);
    EXPECT_TRUE(connection->Execute(sql)) << sql;
    db_layer::DBLayer_FreeConn(connection);
  }
  std::string Store(const std::string& bytes) {
    StoredName name;
    EXPECT_EQ(store_->SaveWhole(EContent::kObject, bytes.data(), static_cast<std::uint32_t>(bytes.size()), name),
              EStoreResult::kDone);
    return LocationText(name);
  }
  static void AddObject(int id, const std::string& name, const std::string& url, long size = 1) {
    Run("INSERT INTO platform.local_object (id, guid, name, bucket_name, size, update_time, url) VALUES (" +
        std::to_string(id) + ", '', '" + name + "', 'b''ucket', " + std::to_string(size) + ", 't', '" + url + "')");
  }
  static void AddPart(int id, const std::string& task, const std::string& object, const std::string& url) {
    Run("INSERT INTO platform.local_object_task (id, task_id, object_name, bucket_name, size, part_num, update_time, "
        "url) values (" +
        std::to_string(id) + ", '" + task + "', '" + object + "', 'b''ucket', 1, 1, 't', '" + url + "')");
  }
  bool IsStored(const std::string& url) {
    StoredName name;
    std::uint64_t size = 0;
    return ParseLocationText(url, name) && store_->GetSize(name, size) == EStoreResult::kDone;
  }
  static std::size_t WaitingCount() {
    std::vector<ReleasedBytes> released;
    EXPECT_TRUE(GetReleased(kFarFuture, 1000, released));
    return released.size();
  }

  std::filesystem::path started_in_ = std::filesystem::current_path();
  fakes::CTempFolder temp_;
  std::unique_ptr<IObjectStore> store_;
};

using HousekeepingTest = CatalogueTest;

TEST_F(HousekeepingTest, OverwrittenBytesAreFreedAfterTheirGrace) {
  const std::string old_url = Store("old");
  const std::string new_url = Store("new");
  AddObject(1, "o", old_url);
  Run("UPDATE platform.local_object set size=1, update_time='t', url='" + new_url + "' where id=1");
  EXPECT_EQ(FreeReleasedBytes(*store_, std::time(nullptr) - 60), 0U);
  EXPECT_TRUE(IsStored(old_url));
  EXPECT_EQ(FreeReleasedBytes(*store_, std::time(nullptr) + 60), 1U);
  EXPECT_FALSE(IsStored(old_url));
  EXPECT_TRUE(IsStored(new_url));
  EXPECT_EQ(WaitingCount(), 0U);
}

TEST_F(HousekeepingTest, BytesThatARowStillNamesAreNotFreed) {
  const std::string first = Store("first");
  const std::string second = Store("second");
  AddObject(1, "o", first);
  Run("UPDATE platform.local_object set url='" + second + "' where id=1");
  Run("UPDATE platform.local_object set url='" + first + "' where id=1");  // back again
  EXPECT_EQ(FreeReleasedBytes(*store_, kFarFuture), 1U);
  EXPECT_TRUE(IsStored(first));
  EXPECT_FALSE(IsStored(second));
  EXPECT_EQ(WaitingCount(), 0U);
}

TEST_F(HousekeepingTest, BytesOfALivingTaskWaitForItsEnd) {
  const std::string parts = Store("parts");
  const std::string other = Store("other");
  AddPart(1, "task", "o", parts);
  AddObject(1, "o", parts);  // completed, but the task's rows could not be removed
  Run("UPDATE platform.local_object set url='" + other + "' where id=1");
  EXPECT_EQ(FreeReleasedBytes(*store_, kFarFuture), 0U);
  EXPECT_TRUE(IsStored(parts));
  EXPECT_EQ(WaitingCount(), 1U);
  Run("DELETE FROM platform.local_object_task WHERE task_id = 'task' ");
  EXPECT_EQ(FreeReleasedBytes(*store_, kFarFuture), 2U) << "released twice, freed as often as asked";
  EXPECT_FALSE(IsStored(parts));
}

TEST_F(HousekeepingTest, PicturesAndForeignTextsAreNeverFreed) {
  StoredName picture;
  ASSERT_EQ(store_->SaveWhole(EContent::kPicture, "jpeg", 4, picture), EStoreResult::kDone);
  const std::string other = Store("other");
  AddObject(1, "o", PictureUrl(picture));
  AddObject(2, "p", "../../catalogue.db");
  Run("UPDATE platform.local_object set url='" + other + "' where id in (1, 2)");
  EXPECT_EQ(FreeReleasedBytes(*store_, kFarFuture), 0U);
  std::uint64_t size = 0;
  EXPECT_EQ(store_->GetSize(picture, size), EStoreResult::kDone);
  EXPECT_EQ(WaitingCount(), 0U);
}

TEST_F(HousekeepingTest, ManyAreFreedInOneRun) {
  const std::string url = Store("last");
  for (int i = 0; i < 250; ++i) {
    AddObject(i + 1, "o" + std::to_string(i), Store("old"));
  }
  Run("UPDATE platform.local_object set url='" + url + "'");
  EXPECT_EQ(FreeReleasedBytes(*store_, kFarFuture), 250U);
}

TEST_F(HousekeepingTest, FirstPartsGoWithTheirTask) {
  AddPart(1, "living-task", "o", Store("x"));
  temp_.Write("localstoragetmp/living-task_2", "part");
  temp_.Write("localstoragetmp/dead-task_1", "part!");
  temp_.Write("localstoragetmp/notes.txt", "mine");
  temp_.Write("localstoragetmp/dead_x", "mine");
  temp_.Write("localstoragetmp/_1", "mine");
  std::vector<std::string> seen;
  const auto note = [&seen](const DeadFirstPart& part) { seen.push_back(part.name + std::to_string(part.size)); };
  EXPECT_TRUE(VisitDeadFirstParts(std::time(nullptr) - 3600, true, note));
  EXPECT_TRUE(seen.empty()) << "too young";
  EXPECT_TRUE(VisitDeadFirstParts(kFarFuture, false, note));
  EXPECT_THAT(seen, testing::ElementsAre("dead-task_15"));
  EXPECT_TRUE(temp_.Exists("localstoragetmp/dead-task_1"));
  EXPECT_TRUE(VisitDeadFirstParts(kFarFuture, true, note));
  EXPECT_FALSE(temp_.Exists("localstoragetmp/dead-task_1"));
  for (const char* name : {"living-task_2", "notes.txt", "dead_x", "_1"}) {
    EXPECT_TRUE(temp_.Exists(std::string("localstoragetmp/") + name)) << name;
  }
}

class CheckTest : public CatalogueTest {
 protected:
  int Check(bool repair) {
    std::ostringstream out;
    const int exit_code = RunCheck(*store_, repair, out);
    output_ = out.str();
    return exit_code;
  }
  std::string output_;
};

TEST_F(CheckTest, AWholeStoreHasNoFindings) {
  AddObject(1, "o", Store("12345"), 5);
  AddPart(1, "task", "p", Store("test"));
  StoredName picture;
  ASSERT_EQ(store_->SaveWhole(EContent::kPicture, "jpeg", 4, picture), EStoreResult::kDone);
  AddObject(2, "with-picture", PictureUrl(picture), 4);
  EXPECT_EQ(Check(false), kExitDone);
  EXPECT_EQ(output_, "check: 3 rows, 3 stored files, 0 orphans (0 bytes), 0 freed, 0 damaged\n");
}

TEST_F(CheckTest, OrphansAreListedAndFreedOnlyByRepair) {
  AddObject(1, "o", Store("kept"));
  const std::string orphan = Store("orphan");
  temp_.Write("objects/pc01/aa/bb/" + std::string(32, 'a') + ".tmp", "torn");
  temp_.Write("localstoragetmp/dead_1", "part");
  EXPECT_EQ(Check(false), kExitFindings);
  StoredName name;
  ASSERT_TRUE(ParseLocationText(orphan, name));
  EXPECT_THAT(output_, HasSubstr("orphan " + FilePath(name) + " 6\n"));
  EXPECT_THAT(output_, HasSubstr("orphan pc01/aa/bb/" + std::string(32, 'a') + ".tmp 4\n"));
  EXPECT_THAT(output_, HasSubstr("first-part dead_1 4\n"));
  EXPECT_THAT(output_, HasSubstr("3 orphans (14 bytes), 0 freed"));
  EXPECT_TRUE(IsStored(orphan));

  EXPECT_EQ(Check(true), kExitDone);
  EXPECT_THAT(output_, HasSubstr("3 orphans (14 bytes), 3 freed"));
  EXPECT_FALSE(IsStored(orphan));
  EXPECT_EQ(Check(false), kExitDone);
}

TEST_F(CheckTest, APictureWithoutARowIsNoOrphan) {
  StoredName picture;
  ASSERT_EQ(store_->SaveWhole(EContent::kPicture, "jpeg", 4, picture), EStoreResult::kDone);
  EXPECT_EQ(Check(true), kExitDone);
  std::uint64_t size = 0;
  EXPECT_EQ(store_->GetSize(picture, size), EStoreResult::kDone);
}

TEST_F(CheckTest, RowsWithoutTheirBytesAreDamaged) {
  const std::string gone = Store("x");
  AddObject(1, "gone", gone);
  AddObject(2, "cut", Store("12345"), 6);
  AddObject(3, "strange\nname", "elsewhere");
  StoredName name;
  ASSERT_TRUE(ParseLocationText(gone, name));
  ASSERT_EQ(store_->Remove(name), EStoreResult::kDone);
  EXPECT_EQ(Check(true), kExitFindings) << "nothing can mend that";
  EXPECT_THAT(output_, HasSubstr("missing /b'ucket/gone " + gone + "\n"));
  EXPECT_THAT(output_, HasSubstr("short /b'ucket/cut "));
  EXPECT_THAT(output_, HasSubstr("missing /b'ucket/strange?name elsewhere\n"));
  EXPECT_THAT(output_, HasSubstr("3 damaged"));
}

TEST_F(CheckTest, SizesBeyondTwoGibibytesAreUnderstood) {
  StoredName name;
  ASSERT_EQ(store_->SaveAt(name, 0xFFFFFFFEULL, "x", 1), EStoreResult::kDone);
  AddObject(1, "big", LocationText(name), -1);  // 4 GiB - 1 as the catalogue keeps it
  EXPECT_EQ(Check(false), kExitDone) << output_;
}

TEST_F(CheckTest, RepairForgetsWhatWasWaitingToBeFreed) {
  const std::string new_url = Store("new");
  AddObject(1, "o", Store("old"));
  Run("UPDATE platform.local_object set url='" + new_url + "' where id=1");
  EXPECT_EQ(WaitingCount(), 1U);
  EXPECT_EQ(Check(true), kExitDone);
  EXPECT_EQ(WaitingCount(), 0U);
  EXPECT_TRUE(IsStored(new_url));
}

TEST_F(CheckTest, WithoutTheCatalogueNothingIsAnOrphan) {
  const std::string url = Store("x");
  Run("DROP TABLE platform.local_object_task");
  EXPECT_EQ(Check(true), kExitFailed);
  EXPECT_TRUE(IsStored(url));
}

}  // namespace
}  // namespace Tansy::Host
