#include "Check.h"

#include <sstream>

#include "CatalogueFixture.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace {

using testing::HasSubstr;

class CheckTest : public CatalogueFixture {
 protected:
  // The store as a check opens it: without the memory of what a server is just writing.
  int Check(bool repair, bool force = false) {
    CheckOptions options;
    options.repair = repair;
    options.force = force;
    return Check(options);
  }
  int Check(CheckOptions options) {
    const auto store = OpenStore(options.repair ? EStoreUse::kRepair : EStoreUse::kLook);
    if (options.unfinished) {
      options.unfinished = [&store, unfinished = options.unfinished](std::vector<StoredName>& names) {
        std::vector<StoredName> ignored;
        return unfinished(names) && store->LookAgain(ignored);
      };
    }
    std::ostringstream out;
    const int exit_code = RunCheck(*store, Database(), options, out);
    output_ = out.str();
    if (options.repair) {
      store_ = OpenStore(EStoreUse::kServe);  // it was changed behind the back of this one
    }
    return exit_code;
  }
  std::string StoreLarge() { return Store(std::string(kLongestSmallBody + 1, 'l')); }
  // Changes a byte of a small object on the disk.
  void Damage(const std::string& body) {
    const std::string segment = "objects/lg01/00000001.log";
    std::string bytes = temp_.Read(segment);
    bytes[bytes.find(body)] ^= 1;
    temp_.Write(segment, bytes);
  }
  // So many bytes that a few orphans beside them are less than a tenth.
  void AddBigObject() { AddObject(1, "big", Store(std::string(1000, 'b')), 1000); }

  std::string output_;
};

// About files that are not in a pool: the body log, and temporary names.
class CheckFilesTest : public CheckTest {};

TEST_F(CheckTest, AWholeStoreHasNoFindings) {
  AddObject(1, "o", Store("12345"), 5);
  AddPart(1, "task", "p", Store("test"));
  AddObject(2, "with-picture", PictureUrl(StorePicture("jpeg")), 4);
  EXPECT_EQ(Check(false), kExitDone);
  EXPECT_EQ(output_, "check: 3 rows, 3 stored files, 0 orphans (0 bytes), 0 freed, 0 damaged, 0 kept (0 bytes)\n");
}

TEST_F(CheckFilesTest, OrphansAreListedAndFreedOnlyByRepair) {
  AddBigObject();
  const std::string orphan = Store("orphan");
  temp_.Write("objects/pc01/aa/bb/" + std::string(32, 'a') + ".tmp", "torn");
  temp_.Write("localstoragetmp/dead_1", "part");
  EXPECT_EQ(Check(false), kExitFindings);
  EXPECT_THAT(output_, HasSubstr("orphan " + FilePath(NameOf(orphan)) + " 6\n"));
  EXPECT_THAT(output_, HasSubstr("orphan pc01/aa/bb/" + std::string(32, 'a') + ".tmp 4\n"));
  EXPECT_THAT(output_, HasSubstr("first-part dead_1 4\n"));
  EXPECT_THAT(output_, HasSubstr("3 orphans (14 bytes), 0 freed"));
  EXPECT_TRUE(IsStored(orphan));

  EXPECT_EQ(Check(true), kExitDone);
  EXPECT_THAT(output_, HasSubstr("3 orphans (14 bytes), 3 freed"));
  EXPECT_FALSE(IsStored(orphan));
  EXPECT_FALSE(temp_.Exists("localstoragetmp/dead_1"));
  EXPECT_EQ(Check(false), kExitDone);
}

TEST_F(CheckTest, RepairOfMoreThanATenthNeedsForce) {
  AddObject(1, "o", Store(std::string(89, 'k')), 89);
  const std::string orphan = Store(std::string(11, 'o'));
  EXPECT_EQ(Check(true), kExitFindings);
  EXPECT_THAT(output_, HasSubstr("11 of 100 bytes, more than a tenth"));
  EXPECT_THAT(output_, HasSubstr("1 orphans (11 bytes), 0 freed"));
  EXPECT_TRUE(IsStored(orphan));
  EXPECT_EQ(Check(true, true), kExitDone);
  EXPECT_FALSE(IsStored(orphan));
}

TEST_F(CheckTest, RepairOfATenthNeedsNone) {
  AddObject(1, "o", Store(std::string(90, 'k')), 90);
  const std::string orphan = Store(std::string(10, 'o'));
  EXPECT_EQ(Check(true), kExitDone) << output_;
  EXPECT_FALSE(IsStored(orphan));
}

TEST_F(CheckTest, RepairByAnEmptyCatalogueNeedsForce) {
  StorePicture(std::string(1000, 'p'));  // so that the orphan alone would be little
  const std::string orphan = Store("orphan");
  EXPECT_EQ(Check(true), kExitFindings);
  EXPECT_THAT(output_, HasSubstr("the catalogue is empty"));
  EXPECT_TRUE(IsStored(orphan));
  EXPECT_EQ(Check(true, true), kExitDone);
  EXPECT_FALSE(IsStored(orphan));
}

TEST_F(CheckTest, APictureWithoutARowIsNoOrphan) {
  const StoredName picture = StorePicture("jpeg");
  EXPECT_EQ(Check(true, true), kExitDone);
  EXPECT_TRUE(IsStored(picture));
}

TEST_F(CheckTest, RowsWithoutTheirBytesAreDamaged) {
  const std::string gone = Store("x");
  AddObject(1, "gone", gone);
  AddObject(2, "cut", Store("12345"), 6);
  AddObject(3, "strange\nname", "elsewhere");
  ASSERT_EQ(store_->Remove(NameOf(gone)), EStoreResult::kDone);
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

TEST_F(CheckTest, BytesWhoseTimeHasNotComeAreKeptEvenByARepair) {
  AddBigObject();
  const std::string replaced = Store("replaced");
  const std::string removed = Store("removed");
  const std::string abandoned = Store("abandoned");
  AddObject(2, "replaced", replaced, 8);
  AddObject(3, "removed", removed, 7);
  AddPart(1, "task", "p", abandoned);
  Run("UPDATE platform.local_object SET url = '" + Store("new") + "', size = 3 WHERE id = 2");
  Run("DELETE FROM platform.local_object WHERE id = 3");
  Run("DELETE FROM platform.local_object_task");
  for (const bool repair : {false, true}) {
    EXPECT_EQ(Check(repair, true), kExitDone) << output_;
    EXPECT_THAT(output_, HasSubstr("kept " + FilePath(NameOf(replaced)) + " 8\n"));
    EXPECT_THAT(output_, HasSubstr("0 orphans (0 bytes), 0 freed, 0 damaged, 3 kept (24 bytes)\n"));
    EXPECT_TRUE(IsStored(replaced) && IsStored(removed) && IsStored(abandoned));
  }
}

TEST_F(CheckTest, WhatARunningServerFreesMeanwhileIsNoFinding) {
  AddBigObject();
  const std::string freed = Store("freed");
  AddObject(2, "replaced", freed, 5);
  Run("DELETE FROM platform.local_object WHERE id = 2");
  int asked = 0;
  CheckOptions options;
  options.unfinished = [&](std::vector<StoredName>&) {
    if (++asked == 2) {
      store_->Remove(NameOf(freed));
      Run("DELETE FROM platform.released_bytes");
    }
    return true;
  };
  EXPECT_EQ(Check(options), kExitDone) << output_;
  EXPECT_THAT(output_, HasSubstr("0 orphans (0 bytes), 0 freed, 0 damaged, 0 kept (0 bytes)\n"));
}

TEST_F(CheckTest, WithoutTheCatalogueNothingIsAnOrphan) {
  const std::string url = Store("x");
  Run("DROP TABLE platform.local_object_task");
  EXPECT_THROW(Check(true, true), CStartFailure);
  EXPECT_TRUE(IsStored(url));
}

TEST_F(CheckTest, ARunningServersUnfinishedUploadsAreNoOrphans) {
  AddBigObject();
  const std::string before = Store("written before the check");
  const std::string meanwhile = Store("begun during the check");
  int asked = 0;
  CheckOptions options;
  options.unfinished = [&](std::vector<StoredName>& names) {
    names.push_back(NameOf(++asked == 1 ? before : meanwhile));
    return true;
  };
  EXPECT_EQ(Check(options), kExitDone) << output_;
  EXPECT_EQ(asked, 3);
  EXPECT_EQ(Check(false), kExitFindings) << "they are when no server is at work";
}

TEST_F(CheckTest, WhatARunningServerDoesMeanwhileIsNoFinding) {
  AddBigObject();
  const std::string removed = Store("removed");
  AddObject(2, "removed", removed, 7);
  const std::string added = Store("added");
  bool done = false;
  CheckOptions options;
  options.unfinished = [&](std::vector<StoredName>&) {
    // The second question comes after the look at rows and files.
    if (std::exchange(done, true)) {
      Run("DELETE FROM platform.local_object WHERE id = 2");
      AddObject(3, "added", added, 5);
    } else {
      store_->Remove(NameOf(removed));
    }
    return true;
  };
  EXPECT_EQ(Check(options), kExitDone) << output_;
}

TEST_F(CheckTest, AStopEndsItBeforeAnythingIsFreed) {
  AddBigObject();
  const std::string orphan = Store("orphan");
  CheckOptions options;
  options.repair = true;
  options.is_stopping = [] { return true; };
  EXPECT_THROW(Check(options), CStartFailure);
  EXPECT_TRUE(IsStored(orphan));
}

TEST_F(CheckTest, ARepairBesideAServerFreesOnlyWhatNoRowCanNameAnyMore) {
  AddBigObject();
  const std::string orphan = Store("orphan");
  const std::string late = Store("late");
  CheckOptions options;
  options.repair = true;
  options.give_up = [&](const std::vector<std::string>& urls, std::set<std::string>& given_up) {
    AddObject(2, "late", late, 4);  // a row that was written at the last moment
    return GiveUpUnnamed(urls, 0, given_up) == EGiveUp::kDone;
  };
  EXPECT_EQ(Check(options), kExitFindings);
  EXPECT_FALSE(IsStored(orphan));
  EXPECT_TRUE(IsStored(late));
}

TEST_F(CheckTest, OrphansAreFoundAmongSmallBodiesAndFiles) {
  AddObject(1, "big", Store(std::string(1000, 'b')), 1000);
  AddObject(2, "bigger", Store(std::string(700000, 'b')), 700000);
  const std::string small = Store("small");
  const std::string large = StoreLarge();
  EXPECT_EQ(Check(true), kExitDone) << output_;
  EXPECT_THAT(output_, HasSubstr("orphan " + FilePath(NameOf(small)) + " 5\n"));
  EXPECT_THAT(output_, HasSubstr("orphan " + FilePath(NameOf(large)) + " 65537\n"));
  EXPECT_FALSE(IsStored(small));
  EXPECT_FALSE(IsStored(large));
}

TEST_F(CheckFilesTest, ASmallObjectThatIsNotWhatWasStoredIsDamaged) {
  const std::string url = Store("what was stored");
  AddObject(1, "o", url, 15);
  AddObject(2, "p", Store("beside it"), 9);
  Damage("what was stored");
  for (const bool repair : {false, true}) {
    EXPECT_EQ(Check(repair), kExitFindings);
    EXPECT_THAT(output_, HasSubstr("damaged /b'ucket/o " + url + "\n"));
    EXPECT_THAT(output_, HasSubstr(" 0 orphans (0 bytes), 0 freed, 1 damaged"));
  }
  EXPECT_TRUE(IsStored(url)) << "what is left of an object is never freed";
}

TEST_F(CheckTest, ADamagedSmallBodyWithoutARowIsAnOrphan) {
  AddBigObject();
  Store("no row");
  Damage("no row");
  EXPECT_EQ(Check(true), kExitDone) << output_;
  EXPECT_THAT(output_, HasSubstr("1 orphans (6 bytes), 1 freed, 0 damaged"));
}

TEST_F(CheckFilesTest, AFileOfSmallBodiesInWhichNothingIsFoundIsAFinding) {
  const std::string url = Store("o");
  AddObject(1, "o", url, 1);
  Damage("TANSYLOG");
  EXPECT_EQ(Check(true, true), kExitFindings);
  EXPECT_THAT(output_, HasSubstr("unreadable lg01/00000001.log "));
  EXPECT_THAT(output_, HasSubstr("missing /b'ucket/o " + url));
  EXPECT_THAT(output_, HasSubstr("0 orphans (0 bytes), 0 freed, 2 damaged"));
  EXPECT_TRUE(temp_.Exists("objects/lg01/00000001.log"));
}

// The check is another process: what it knows of the store is older than what it reads in the catalogue.
TEST_F(CheckTest, SmallObjectsThatAreStoredMeanwhileAreNoFindings) {
  AddBigObject();
  const auto look = OpenStore(EStoreUse::kLook);
  CheckOptions options;
  options.unfinished = [&look](std::vector<StoredName>& names) { return look->LookAgain(names); };
  AddObject(2, "added", Store("added"), 5);
  const std::string unfinished = Store("its row is yet to come");
  bool done = false;
  options.unfinished = [&, ask = options.unfinished](std::vector<StoredName>& names) {
    if (!std::exchange(done, true)) {
      const bool asked = ask(names);
      AddObject(3, "added meanwhile", Store("meanwhile"), 9);
      return asked;
    }
    return ask(names);
  };
  std::ostringstream out;
  EXPECT_EQ(RunCheck(*look, Database(), options, out), kExitDone) << out.str();
  EXPECT_TRUE(done);
}

}  // namespace
}  // namespace Tansy::Host
