#include "Housekeeping.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "CatalogueFixture.h"
#include "HousekeepingCounts.h"
#include "fakes/ManualClock.h"

namespace Tansy::Host {
namespace {

constexpr std::int64_t kGrace = 300;
constexpr std::int64_t kDay = 24 * 3600;

class HousekeepingTest : public CatalogueFixture {
 protected:
  void SetUp() override {
    CatalogueFixture::SetUp();
    Restart();
  }

  // The store and its housekeeping as the next start finds them.
  void Restart() {
    housekeeping_.reset();
    store_.reset();
    store_ = OpenStore(EStoreUse::kServe);
    housekeeping_ = std::make_unique<CHousekeeping>(
        std::shared_ptr<IObjectStore>(std::shared_ptr<void>(), store_.get()), rules_,
        [this](std::vector<std::string>& locations) {
          locations = running_;
          return running_is_known_;
        },
        [this] { return stopping_ || (stop_when_ && stop_when_()); }, is_first_);
  }
  void Round(std::int64_t seconds_later = 0) {
    clock_.Advance(seconds_later);
    housekeeping_->Run();
  }
  static std::string WaitingCount() { return Answer("SELECT COUNT(*) FROM platform.released_bytes"); }
  static void Overwrite(int id, const std::string& url) {
    Run("UPDATE platform.local_object set url='" + url + "' where id=" + std::to_string(id));
  }

  Tests::CManualClock clock_;
  std::unique_ptr<CHousekeeping> housekeeping_;
  HousekeepingRules rules_;
  std::vector<std::string> running_;
  bool running_is_known_ = true;
  bool stopping_ = false;
  std::function<bool()> stop_when_;
  std::function<bool()> is_first_;
};

// What the first of several processes does for all of them.
class HousekeepingNodesTest : public HousekeepingTest {
 protected:
  void SetUp() override {
    is_first_ = [] { return true; };
    HousekeepingTest::SetUp();
  }
  // Adds entries to the log of changes that are older than anybody needs.
  static void AddOldChanges(int count) {
    Tests::CPostgresServer::Shared().Run(
        "INSERT INTO platform.catalogue_changes (kind, mark) SELECT 0, n FROM generate_series(1, " +
        std::to_string(count) + ") AS n");
  }
};

// About files that are not in a pool: the body log, and a file that cannot be written.
class HousekeepingFilesTest : public HousekeepingTest {};

TEST_F(HousekeepingTest, OverwrittenBytesAreFreedAfterTheirGraceAndNotBefore) {
  const std::string old_url = Store("old");
  const std::string new_url = Store("new");
  AddObject(1, "o", old_url);
  Overwrite(1, new_url);
  Round();
  Round(kGrace - 1);
  EXPECT_TRUE(IsStored(old_url));
  Round(1);
  EXPECT_FALSE(IsStored(old_url));
  EXPECT_TRUE(IsStored(new_url));
  EXPECT_EQ(WaitingCount(), "0");
}

TEST_F(HousekeepingTest, TheTimeOfDayCountsForNothing) {
  const std::string old_url = Store("old");
  const std::string orphan = Store("orphan");
  AddObject(1, "o", old_url);
  Overwrite(1, Store("new"));
  Round();
  for (const std::time_t step : {std::time_t{5 * 3600}, std::time_t{-9 * 3600}}) {
    clock_.Set(clock_.Now() + step);
    Round();
    EXPECT_TRUE(IsStored(old_url)) << "nothing is freed early, step " << step;
    EXPECT_TRUE(IsStored(orphan)) << "nothing is freed early, step " << step;
  }
  Round(kGrace);
  EXPECT_FALSE(IsStored(old_url)) << "nothing is stuck";
  EXPECT_FALSE(IsStored(orphan)) << "nothing is stuck";
}

TEST_F(HousekeepingTest, CountsWhatItFreesAndWhatWaits) {
  HousekeepingCounts& counts = HousekeepingCounts::OfProcess();
  const std::uint64_t rounds = counts.rounds;
  const std::uint64_t released = counts.freed_released.pieces;
  const std::uint64_t released_bytes = counts.freed_released.bytes;
  const std::uint64_t orphaned = counts.freed_orphaned.pieces;
  const std::uint64_t orphaned_bytes = counts.freed_orphaned.bytes;
  const std::string replaced = Store("replaced");
  AddObject(1, "o", replaced);
  Overwrite(1, Store("by this"));
  Store("orphan");
  Round();
  EXPECT_EQ(counts.rounds, rounds + 1);
  EXPECT_EQ(counts.waiting_replaced, 1U);
  EXPECT_EQ(counts.waiting_removed, 0U);
  EXPECT_GE(counts.waiting_new, 1U);
  EXPECT_EQ(counts.freed_released.pieces, released);
  Round(kGrace + 60);
  Round(kGrace + 60);
  EXPECT_EQ(counts.freed_released.pieces, released + 1);
  EXPECT_EQ(counts.freed_released.bytes, released_bytes + 8);
  EXPECT_EQ(counts.freed_orphaned.pieces, orphaned + 1);
  EXPECT_EQ(counts.freed_orphaned.bytes, orphaned_bytes + 6);
  EXPECT_EQ(counts.waiting_replaced, 0U);
  EXPECT_EQ(counts.waiting_new, 0U);
}

TEST_F(HousekeepingTest, BytesThatARowStillNamesAreNotFreed) {
  const std::string first = Store("first");
  const std::string second = Store("second");
  AddObject(1, "o", first);
  Overwrite(1, second);
  Overwrite(1, first);  // back again
  Round();
  Round(kGrace);
  EXPECT_TRUE(IsStored(first));
  EXPECT_FALSE(IsStored(second));
  EXPECT_EQ(WaitingCount(), "0");
}

TEST_F(HousekeepingTest, BytesOfALivingTaskWaitForItsEnd) {
  const std::string parts = Store("parts");
  AddPart(1, "task", "o", parts);
  AddObject(1, "o", parts);  // completed, but the task's rows could not be removed
  Overwrite(1, Store("other"));
  Round();
  Round(kGrace);
  EXPECT_TRUE(IsStored(parts));
  Run("DELETE FROM platform.local_object_task WHERE task_id = 'task' ");
  Round();
  EXPECT_TRUE(IsStored(parts));
  Round(kGrace);
  EXPECT_FALSE(IsStored(parts));
}

TEST_F(HousekeepingTest, PicturesAndForeignTextsAreNeverFreed) {
  const StoredName picture = StorePicture("jpeg");
  AddObject(1, "o", PictureUrl(picture));
  AddObject(2, "p", "../../catalogue.db");
  Overwrite(1, Store("other"));
  Overwrite(2, Store("another"));
  Round();
  Round(kGrace);
  EXPECT_TRUE(IsStored(picture));
  EXPECT_EQ(temp_.Exists("catalogue.db"), !Tests::IsOnPostgresql());
  EXPECT_EQ(WaitingCount(), "0");
}

TEST_F(HousekeepingTest, ManyAreFreedInOneRound) {
  const std::string url = Store("last");
  std::vector<std::string> old_urls;
  for (int i = 0; i < 250; ++i) {
    old_urls.push_back(Store("old"));
    AddObject(i + 1, "o" + std::to_string(i), old_urls.back());
  }
  Run("UPDATE platform.local_object set url='" + url + "'");
  Round();
  Round(kGrace);
  for (const std::string& old_url : old_urls) {
    EXPECT_FALSE(IsStored(old_url));
  }
}

TEST_F(HousekeepingTest, AStopEndsARoundWithinABatch) {
  const std::string url = Store("last");
  for (int i = 0; i < 250; ++i) {
    AddObject(i + 1, "o" + std::to_string(i), Store("old"));
  }
  Run("UPDATE platform.local_object set url='" + url + "'");
  Round();
  stopping_ = true;
  Round(kGrace);
  EXPECT_EQ(WaitingCount(), "250");
}

// In a pool each of them may take a second, and a stop must not wait for a hundred.
TEST_F(HousekeepingTest, AStopEndsARoundBetweenTwoUploadsThatFailed) {
  const std::vector<std::string> orphans = {Store("a"), Store("b"), Store("c")};
  const auto left = [&] {
    return std::count_if(orphans.begin(), orphans.end(), [this](const std::string& url) { return IsStored(url); });
  };
  stop_when_ = [&left] { return left() < 3; };
  Round(kGrace);
  EXPECT_EQ(left(), 2);
  stop_when_ = nullptr;
  Round();
  EXPECT_EQ(left(), 0);
}

TEST_F(HousekeepingTest, RemovedObjectsKeepTheirBytesForDays) {
  const std::string url = Store("removed");
  AddObject(1, "o", url);
  Run("DELETE FROM platform.local_object where id=1");
  Round();
  for (int day = 0; day < 7; ++day) {
    EXPECT_TRUE(IsStored(url)) << "day " << day;
    Restart();  // which may cost an hour of the time that it was up, never more, and never counts double
    Round();
    Round(kDay);
  }
  Round(3600);
  EXPECT_FALSE(IsStored(url));
  EXPECT_EQ(WaitingCount(), "0");
}

TEST_F(HousekeepingTest, RemovedObjectsWhoseBytesWentWithThemAreForgottenAtOnce) {
  const std::string url = Store("removed");
  AddObject(1, "o", url);
  ASSERT_EQ(store_->Remove(NameOf(url)), EStoreResult::kDone);
  Run("DELETE FROM platform.local_object where id=1");
  Round();
  EXPECT_EQ(WaitingCount(), "0");
}

TEST_F(HousekeepingTest, BytesThatAreToGoSoonDoSoAlsoWhenTheyWereFoundBefore) {
  const std::string url = Store("removed");
  AddObject(1, "o", url);
  Round();
  Run("DELETE FROM platform.local_object WHERE id = 1");
  Round();  // finds bytes that are there, and keeps them
  EXPECT_TRUE(ReleaseSoon(url));
  Round(kGrace);
  EXPECT_FALSE(IsStored(url));
}

TEST_F(HousekeepingTest, BytesThatNeverGotARowAreFreedAfterTheirGrace) {
  const std::string url = Store("no row");
  Round();
  Round(kGrace - 1);
  EXPECT_TRUE(IsStored(url));
  Round(1);
  EXPECT_FALSE(IsStored(url));
  EXPECT_FALSE(
      TryToRun("INSERT INTO platform.local_object (id, name, bucket_name, url) VALUES (1, 'o', 'b', '" + url + "')"))
      << "a row that comes after all would name nothing";
}

TEST_F(HousekeepingTest, ARowMayTakeMomentsHoweverShortTheGraceIs) {
  rules_.keep_failed_seconds = 1;
  Restart();
  const std::string url = Store("no row yet");
  Round();
  Round(4);
  EXPECT_TRUE(IsStored(url));
  Round(1);
  EXPECT_FALSE(IsStored(url));
}

TEST_F(HousekeepingTest, BytesWithARowStay) {
  const std::string object = Store("object");
  const std::string task = Store("task");
  const StoredName picture = StorePicture("picture");
  AddObject(1, "o", object);
  AddPart(1, "task", "p", task);
  Round(10);
  EXPECT_FALSE(store_->IsNew(NameOf(object)));
  EXPECT_FALSE(store_->IsNew(NameOf(task)));
  Round(30 * kDay);
  Restart();
  Round(kDay);
  EXPECT_TRUE(IsStored(object));
  EXPECT_TRUE(IsStored(task));
  EXPECT_TRUE(IsStored(picture));
}

// A client that needs an hour between two pieces.
TEST_F(HousekeepingTest, ARunningUploadKeepsItsBytesHoweverSlowItIs) {
  StoredName name;
  ASSERT_EQ(store_->SaveAt(name, 0, "piece 1", 7), EStoreResult::kDone);
  const std::string url = LocationText(name);
  running_ = {url};
  for (int hour = 0; hour < 5; ++hour) {
    Round(3600);
    ASSERT_TRUE(IsStored(url)) << "hour " << hour;
  }
  running_.clear();  // complete; its row is still to be written
  Round(kGrace - 1);
  ASSERT_TRUE(IsStored(url));
  AddObject(1, "o", url);
  Round(1);
  Round(kGrace);
  EXPECT_TRUE(IsStored(url));
}

TEST_F(HousekeepingTest, AsLongAsItIsNotKnownWhatIsRunningNothingIsGivenUp) {
  const std::string url = Store("piece 1");
  running_is_known_ = false;
  Round(kGrace);
  EXPECT_TRUE(IsStored(url));
  running_is_known_ = true;
  Round();
  EXPECT_FALSE(IsStored(url));
}

TEST_F(HousekeepingTest, WhatACrashLeftIsFreedAtTheNextStart) {
  const std::string named = Store("named");
  AddObject(1, "o", named);
  const std::string left = Store("left");
  const StoredName picture = StorePicture("picture");
  Restart();
  Round();
  EXPECT_TRUE(IsStored(named));
  EXPECT_FALSE(IsStored(left));
  EXPECT_TRUE(IsStored(picture));
  Restart();
  EXPECT_TRUE(store_->GetNew(0).empty()) << "nothing is left to look at";
}

TEST_F(HousekeepingFilesTest, TheRoomOfFreedSmallObjectsIsGivenBack) {
  const auto stored_bytes = [this] {
    std::uintmax_t bytes = 0;
    for (const auto& item : std::filesystem::recursive_directory_iterator(temp_.Path("objects"))) {
      bytes += item.is_regular_file() ? item.file_size() : 0;
    }
    return bytes;
  };
  for (int i = 0; i < 100; ++i) {
    AddObject(i + 1, "o" + std::to_string(i), Store(std::string(20000, 'x')));
  }
  Round(10);
  EXPECT_GT(stored_bytes(), 2000000U);
  for (int i = 10; i < 100; ++i) {
    Overwrite(i + 1, Store("new"));
  }
  Round();
  Round(kGrace);
  Round(10);
  Round(10);
  EXPECT_LT(stored_bytes(), 250000U);
  EXPECT_TRUE(IsStored(Answer("SELECT url FROM platform.local_object WHERE id = 1")));
  EXPECT_TRUE(IsStored(Answer("SELECT url FROM platform.local_object WHERE id = 100")));
  for (int i = 0; i < 100; ++i) {
    const std::string id = std::to_string(i + 1);
    ASSERT_EQ(store_->Remove(NameOf(Answer("SELECT url FROM platform.local_object WHERE id = " + id))),
              EStoreResult::kDone);
    Run("DELETE FROM platform.local_object WHERE id = " + id);
  }
  Round();
  EXPECT_LT(stored_bytes(), 1000U);
}

TEST_F(HousekeepingTest, ACatalogueThatCannotBeReadFreesNothing) {
  const std::string url = Store("x");
  Run("ALTER TABLE platform.local_object_task RENAME TO hidden");
  Round(kGrace);
  Round(kGrace);
  EXPECT_TRUE(IsStored(url));
  Run("ALTER TABLE platform.hidden RENAME TO local_object_task");
  Round();
  EXPECT_FALSE(IsStored(url));
}

TEST_F(HousekeepingTest, ACatalogueWithoutRoomStillLetsTheDiskGetRoom) {
  const std::string orphan = Store("no row");
  const std::string named = Store("named");
  AddObject(1, "o", named);
  RefuseRows("freed_bytes");
  Round();
  Round(kGrace);
  EXPECT_FALSE(IsStored(orphan));
  EXPECT_TRUE(IsStored(named));
}

// A request may wait for that program too, for as long as it takes, and then write its row.
TEST_F(HousekeepingTest, ACatalogueThatAnotherProgramHasLockedFreesNothing) {
  const std::string url = Store("waits for its row");
  std::unique_ptr<CSqliteFile> other;
  std::shared_ptr<void> held;
  if (Tests::IsOnPostgresql()) {
    held = Tests::CPostgresServer::Shared().Hold("LOCK TABLE platform.freed_bytes");
  } else {
    other = std::make_unique<CSqliteFile>("catalogue.db", CSqliteFile::EAccess::kChange);
    other->RunScript("BEGIN IMMEDIATE", "the lock");
  }
  Round();
  Round(kGrace);
  EXPECT_TRUE(IsStored(url));
  other.reset();
  held.reset();
  AddObject(1, "o", url);
  Round(kGrace);
  EXPECT_TRUE(IsStored(url));
}

TEST_F(HousekeepingTest, ACrashDoesNotMakeWhatWaitsWaitLonger) {
  const std::string url = Store("old");
  AddObject(1, "o", url);
  Round();
  Round(3000);
  const std::string saved = Answer("SELECT value FROM platform.host_values WHERE name = 'running_seconds'");
  Overwrite(1, Store("new"));
  Round();
  Restart();
  Run("UPDATE platform.host_values SET value = '" + saved + "' WHERE name = 'running_seconds'");
  Round();
  Round(kGrace);
  EXPECT_FALSE(IsStored(url));
}

TEST_F(HousekeepingFilesTest, AnUploadWhoseLaterPieceFailsGivesItsSpaceBackAtOnce) {
  StoredName name;
  ASSERT_EQ(store_->SaveAt(name, 0, "first piece", 11), EStoreResult::kDone);
  StoredName task;
  ASSERT_EQ(store_->SaveAt(task, 0, "test", 4), EStoreResult::kDone);
  AddPart(1, "task", "o", LocationText(task));
  // Nobody may write to these files any more: the next pieces fail.
  for (const StoredName& stored : {name, task}) {
    const std::string path = temp_.Path("objects/" + FilePath(stored));
    std::filesystem::rename(path, path + ".away");
    std::filesystem::create_directory(path);
    StoredName again = stored;
    ASSERT_NE(store_->SaveAt(again, 11, "second piece", 12), EStoreResult::kDone);
    std::filesystem::remove(path);
    std::filesystem::rename(path + ".away", path);
  }
  Round();
  EXPECT_FALSE(IsStored(name));
  EXPECT_TRUE(IsStored(task)) << "a part can be sent again";
}

TEST_F(HousekeepingTest, WhatWasGivenUpIsForgottenOneDay) {
  Store("no row");
  Round(kGrace);
  EXPECT_EQ(Answer("SELECT COUNT(*) FROM platform.freed_bytes"), "1");
  Round(kDay);
  EXPECT_EQ(Answer("SELECT COUNT(*) FROM platform.freed_bytes"), "0");
}

TEST_F(HousekeepingTest, FirstPartsGoSoonAfterTheirTask) {
  AddPart(1, "living-task", "o", Store("x"));
  for (const char* name : {"living-task_2", "dead-task_1", "notes.txt", "dead_x", "_1"}) {
    temp_.Write(std::string("localstoragetmp/") + name, "part");
  }
  clock_.Set(clock_.Now() - 12 * 3600);  // files from the future are no older or younger for it
  Round();
  EXPECT_TRUE(temp_.Exists("localstoragetmp/dead-task_1")) << "its writer may still be at it";
  Round(60);
  EXPECT_FALSE(temp_.Exists("localstoragetmp/dead-task_1"));
  for (const char* name : {"living-task_2", "notes.txt", "dead_x", "_1"}) {
    EXPECT_TRUE(temp_.Exists(std::string("localstoragetmp/") + name)) << name;
  }
}

// All processes wait while one of them writes.
TEST_F(HousekeepingNodesTest, TheLogOfChangesIsForgottenInSmallStepsButForTheNewestEntry) {
  AddOldChanges(25000);
  Tests::CPostgresServer::Shared().Run(
      "CREATE FUNCTION platform.expect_small_step() RETURNS trigger LANGUAGE plpgsql AS "
      "$$ BEGIN IF (SELECT count(*) FROM gone) > 5000 THEN RAISE EXCEPTION 'too many'; END IF; RETURN NULL; END $$;"
      "CREATE TRIGGER small_steps AFTER DELETE ON platform.catalogue_changes REFERENCING OLD TABLE AS gone "
      "FOR EACH STATEMENT EXECUTE FUNCTION platform.expect_small_step()");
  const std::string newest = Answer("SELECT max(seq) FROM platform.catalogue_changes");
  Round();
  EXPECT_EQ(Answer("SELECT string_agg(seq::text, ' ') FROM platform.catalogue_changes"), newest);
  // Entries of the last hour stay.
  Run("INSERT INTO platform.catalogue_changes (kind) VALUES (0), (0)");
  Round(3600);
  EXPECT_EQ(Answer("SELECT count(*) FROM platform.catalogue_changes"), "2");
}

TEST_F(HousekeepingNodesTest, ALongLogIsForgottenBeforeWhatMayTakeLong) {
  AddOldChanges(5000);
  AddObject(1, "o", Store("old"));
  Overwrite(1, Store("new"));
  // A look at released bytes that never comes to its end.
  Tests::CPostgresServer::Shared().Run(
      "CREATE FUNCTION platform.stop_here() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
      "IF (SELECT count(*) FROM platform.catalogue_changes) > 1 THEN RAISE EXCEPTION 'the log is still there'; END IF; "
      "RETURN NEW; END $$; CREATE TRIGGER stop_here BEFORE UPDATE ON platform.released_bytes "
      "FOR EACH ROW EXECUTE FUNCTION platform.stop_here()");
  Round();
  EXPECT_EQ(Answer("SELECT count(*) FROM platform.released_bytes WHERE released_at >= 0"), "1");
}

TEST_F(HousekeepingNodesTest, MarksOfProcessesThatEndedLongAgoAreForgotten) {
  Run("INSERT INTO platform.commit_marks (writer, batch) VALUES ('of a process that has ended', 7)");
  Round();
  EXPECT_EQ(Answer("SELECT count(*) FROM platform.commit_marks WHERE batch = 7"), "1");
  Tests::CPostgresServer::Shared().Run(
      "DO $$ BEGIN FOR i IN 1..100001 LOOP PERFORM txid_current(); COMMIT; END LOOP; END $$");
  Round(60);
  EXPECT_EQ(Answer("SELECT count(*) FROM platform.commit_marks WHERE batch = 7"), "0");
  EXPECT_EQ(Answer("SELECT count(*) FROM platform.commit_marks"), "1") << "this process still has its own";
}

}  // namespace
}  // namespace Tansy::Host
