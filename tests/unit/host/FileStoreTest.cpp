#include "FileStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <thread>

#include "StartFailure.h"
#include "StoreFixture.h"
#include "fakes/FailingAllocation.h"
#include "fakes/PowerCutFolder.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

class FileStoreTest : public CStoreFixture, public testing::TestWithParam<bool> {
 protected:
  FileStoreTest() { store_ = OpenFileStore(temp_.Path("objects"), GetParam()); }

  Tests::CTempFolder temp_;
};

TEST_P(FileStoreTest, WholeObjectsComeBack) {
  std::string big(3 * 1024 * 1024 + 7, 'b');
  for (std::size_t i = 0; i < big.size(); i += 1000) {
    big[i] = static_cast<char>(i / 1000);
  }
  for (const std::string& bytes :
       {std::string("hello"), std::string(), std::string("\0x", 2), kLargeBytes.substr(1), kLargeBytes, big}) {
    StoredName name;
    ASSERT_EQ(Save(bytes, name), EStoreResult::kDone);
    const bool is_small = bytes.size() <= kLongestSmallBody;
    EXPECT_EQ(name.volume, is_small ? "lg01" : "fs01");
    EXPECT_NE(std::filesystem::exists(temp_.Path("objects/" + FilePath(name))), is_small);
    EXPECT_EQ(ReadAll(name), bytes);
    std::uint64_t size = 0;
    EXPECT_EQ(store_->GetSize(name, size), EStoreResult::kDone);
    EXPECT_EQ(size, bytes.size());
  }
}

// Whoever is told that bytes could not be removed puts their row back, so they must still be there.
TEST_P(FileStoreTest, ARemovalThatFindsNoMemoryRemovesNothing) {
  for (const std::size_t size : {std::size_t{5}, std::size_t{200000}}) {
    StoredName name;
    const std::string bytes(size, 'x');
    ASSERT_EQ(Save(bytes, name), EStoreResult::kDone);
    bool is_removed = false;
    std::uint64_t found = 0;
    const auto remove = [&] { is_removed = store_->Remove(name) == EStoreResult::kDone || is_removed; };
    Tests::FailEachAllocation(remove, [&](std::size_t number, bool) {
      EXPECT_EQ(store_->GetSize(name, found) == EStoreResult::kDone, !is_removed)
          << size << " bytes, allocation " << number;
    });
    EXPECT_TRUE(is_removed);
  }
}

#ifdef __linux__
// A file that somebody kept open would hold its space.
TEST_P(FileStoreTest, ARemovedFileIsNotKeptOpen) {
  StoredName name;
  ASSERT_EQ(Save(std::string(200000, 'x'), name), EStoreResult::kDone);
  EXPECT_EQ(ReadAll(name).size(), 200000U);
  ASSERT_EQ(store_->RemovePath(FilePath(name)), EStoreResult::kDone);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    EXPECT_EQ(std::filesystem::read_symlink(entry, error).string().find(name.id), std::string::npos);
  }
}
#endif

TEST_P(FileStoreTest, PicturesLieApartFromObjects) {
  StoredName name;
  ASSERT_EQ(Save("jpeg", name, EContent::kPicture), EStoreResult::kDone);
  EXPECT_EQ(name.volume, "pc01");
  EXPECT_TRUE(store_->IsPicture(name));
  EXPECT_EQ(ReadAll(name), "jpeg");
  for (const std::string& bytes : {std::string("object"), kLargeBytes}) {
    ASSERT_EQ(Save(bytes, name), EStoreResult::kDone);
    EXPECT_FALSE(store_->IsPicture(name));
  }
}

TEST_P(FileStoreTest, ASmallBodyIsNeverChanged) {
  StoredName name;
  ASSERT_EQ(Save("small", name), EStoreResult::kDone);
  EXPECT_EQ(SaveAt(name, 0, "S"), EStoreResult::kInvalid);
  EXPECT_EQ(ReadAll(name), "small");
}

TEST_P(FileStoreTest, ADamagedSmallBodyIsNotServed) {
  StoredName name;
  ASSERT_EQ(Save("what was stored", name), EStoreResult::kDone);
  const std::string segment = "objects/lg01/00000001.log";
  std::string bytes = temp_.Read(segment);
  bytes[bytes.find("was")] = 'W';
  std::filesystem::remove(temp_.Path(segment));
  temp_.Write(segment, bytes);
  store_ = OpenFileStore(temp_.Path("objects"), GetParam());
  ReadBuffer buffer;
  EXPECT_EQ(store_->ReadWhole(name, buffer), EStoreResult::kDamaged);
  EXPECT_EQ(store_->ReadRange(name, 0, 15, buffer), EStoreResult::kDamaged);
  EXPECT_EQ(store_->ReadRange(name, 0, 1000, buffer), EStoreResult::kDamaged);
}

TEST_P(FileStoreTest, ALinkInTheStoreIsNotFollowed) {
  temp_.Write("secret", "secret");
  StoredName name;
  ASSERT_EQ(Save(kLargeBytes, name), EStoreResult::kDone);
  ASSERT_EQ(store_->Remove(name), EStoreResult::kDone);
  std::filesystem::create_symlink(temp_.Path("secret"), temp_.Path("objects/" + FilePath(name)));
  ReadBuffer buffer;
  EXPECT_NE(store_->ReadWhole(name, buffer), EStoreResult::kDone);
  EXPECT_NE(SaveAt(name, 0, "overwritten"), EStoreResult::kDone);
  EXPECT_EQ(temp_.Read("secret"), "secret");
}

TEST_P(FileStoreTest, TheWalkShowsFilesAndLeavesStrangersOut) {
  StoredName object;
  StoredName picture;
  StoredName large;
  ASSERT_EQ(Save("12345", object), EStoreResult::kDone);
  ASSERT_EQ(Save(kLargeBytes, large), EStoreResult::kDone);
  ASSERT_EQ(Save("123", picture, EContent::kPicture), EStoreResult::kDone);
  temp_.Write("objects/fs01/aa/bb/README", "mine");
  temp_.Write("objects/fs01/notes/bb/" + std::string(32, '0') + ".d", "mine");
  temp_.Write("objects/pc01/aa/bb/" + std::string(32, 'a') + ".tmp", "torn");
  std::map<std::string, StoredEntry> entries;
  for (const EContent content : {EContent::kObject, EContent::kPicture}) {
    ASSERT_TRUE(store_->ForEach(content, [&entries](const StoredEntry& entry) {
      entries[entry.path] = entry;
      return true;
    }));
  }
  ASSERT_EQ(entries.size(), 4U);
  EXPECT_EQ(entries.at(FilePath(object)).size, 5U);
  EXPECT_EQ(entries.at(FilePath(object)).name, object);
  EXPECT_EQ(entries.at(FilePath(large)).name, large);
  EXPECT_EQ(entries.at(FilePath(picture)).content, EContent::kPicture);
  EXPECT_TRUE(entries.at("pc01/aa/bb/" + std::string(32, 'a') + ".tmp").is_temporary);
  EXPECT_EQ(store_->RemovePath(FilePath(object)), EStoreResult::kDone);
  EXPECT_EQ(store_->RemovePath(FilePath(large)), EStoreResult::kDone);
  EXPECT_EQ(CountStored(), 2U);
}

TEST_P(FileStoreTest, FoldersTakeAThousandFilesEach) {
  std::set<std::string> folders;
  for (int i = 0; i < 2001; ++i) {
    StoredName name;
    ASSERT_EQ(SaveAt(name, 0, ""), EStoreResult::kDone);
    folders.insert(name.folder);
    if (!GetParam() || i < 20) {
      continue;
    }
    break;  // every save of full durability costs a flush; the rule is the same
  }
  EXPECT_EQ(folders.size(), GetParam() ? 1U : 3U);
}

INSTANTIATE_TEST_SUITE_P(FullAndFast, FileStoreTest, testing::Bool(),
                         [](const auto& item) { return item.param ? "Full" : "Fast"; });

TEST(OpenFileStoreTest, AFolderThatCannotBeMadeIsAFailure) {
  Tests::CTempFolder temp;
  temp.Write("file", "");
  EXPECT_THROW(OpenFileStore(temp.Path("file"), true), CStartFailure);
}

// What a power failure leaves.
class PowerCutTest : public CStoreFixture, public testing::Test {
 protected:
  PowerCutTest() { Reopen(); }

  // The store as the next start finds it.
  void Reopen() {
    plan_ = std::make_shared<Tests::PowerCutPlan>();
    auto store = std::make_unique<CFileStore>(std::make_unique<Tests::CPowerCutFolder>(root_, plan_), true);
    ASSERT_EQ(store->Load(), 0);
    store_ = std::move(store);
  }
  // Stores and makes durable, as it is done before a row.
  EStoreResult SaveDurably(const std::string& bytes, StoredName& name, EContent content = EContent::kObject) {
    const EStoreResult result = Save(bytes, name, content);
    std::string reason;
    return result == EStoreResult::kDone && !store_->MakeDurable({}, reason) ? EStoreResult::kFailed : result;
  }
  void CutPower() {
    root_->Cut();
    Reopen();
  }

  std::shared_ptr<Tests::PowerCutNode> root_ = [] {
    auto node = std::make_shared<Tests::PowerCutNode>();
    node->is_folder = true;
    return node;
  }();
  std::shared_ptr<Tests::PowerCutPlan> plan_;
};

TEST_F(PowerCutTest, WhatWasAcknowledgedIsThereAfterwards) {
  StoredName object;
  StoredName picture;
  StoredName parts;
  StoredName large;
  ASSERT_EQ(SaveDurably("object", object), EStoreResult::kDone);
  ASSERT_EQ(Save("picture", picture, EContent::kPicture), EStoreResult::kDone);
  ASSERT_EQ(Save(kLargeBytes, large), EStoreResult::kDone);
  ASSERT_EQ(SaveAt(parts, 0, "test"), EStoreResult::kDone);
  ASSERT_EQ(SaveAt(parts, 4, "more"), EStoreResult::kDone);
  CutPower();
  EXPECT_EQ(ReadAll(object), "object");
  EXPECT_EQ(ReadAll(large), kLargeBytes);
  EXPECT_EQ(ReadAll(picture), "picture");
  EXPECT_EQ(ReadAll(parts), "testmore");
}

// Bytes whose write ended without a result would never be given up.
TEST_F(PowerCutTest, AWriteThatFindsNoMemoryCountsAsFailed) {
  StoredName first;
  ASSERT_EQ(SaveAt(first, 0, "test"), EStoreResult::kDone);
  plan_->throws = true;
  bool done = false;
  for (int fail_at = 0; !done; ++fail_at) {
    ASSERT_LT(fail_at, 50) << "the plan never ran through";
    plan_->operations = 0;
    plan_->fail_at = fail_at;
    StoredName name;
    try {
      SaveDurably(kLargeBytes, name);
      SaveDurably("object", name);
      SaveAt(first, 4, "more");
      done = true;
    } catch (const std::bad_alloc&) {
    }
    const std::size_t noted = CountStored() - 1;  // all but the first are new and have no row
    EXPECT_GE(store_->GetNew(0).size(), noted) << "operation " << fail_at;
  }
  EXPECT_EQ(ReadAll(first), "testmore");
}

// Fails each operation in turn, with the power cut right afterwards.
TEST_F(PowerCutTest, NoFailureOnTheWayHurtsWhatWasAcknowledgedBefore) {
  const std::pair<EContent, std::string> kinds[] = {
      {EContent::kObject, ""}, {EContent::kObject, kLargeBytes}, {EContent::kPicture, ""}};
  for (const auto& [content, padding] : kinds) {
    bool done = false;
    for (int fail_at = 0; !done; ++fail_at) {
      ASSERT_LT(fail_at, 50) << "the plan never ran through";
      root_->entries.clear();
      root_->entries_on_disk.clear();
      Reopen();
      StoredName first;
      ASSERT_EQ(SaveDurably("first" + padding, first, content), EStoreResult::kDone);
      CutPower();
      plan_->fail_at = fail_at;
      StoredName second;
      const EStoreResult result = SaveDurably("second" + padding, second, content);
      done = result == EStoreResult::kDone;
      if (!done) {
        EXPECT_EQ(CountStored(), 1U) << "a failed save leaves nothing, failure at operation " << fail_at;
      }
      CutPower();
      EXPECT_EQ(ReadAll(first), "first" + padding) << "failure at operation " << fail_at;
      if (done) {
        EXPECT_EQ(ReadAll(second), "second" + padding);
      }
    }
  }
}

TEST_F(PowerCutTest, AFailedSaveNamesNothing) {
  for (const std::string& bytes : {std::string("x"), kLargeBytes}) {
    plan_->operations = 0;
    plan_->fail_at = 1;
    StoredName name;
    EXPECT_NE(Save(bytes, name), EStoreResult::kDone);
    EXPECT_TRUE(name.id.empty());
  }
}

TEST_F(PowerCutTest, ATornPictureNeverLooksLikeAWholeOne) {
  // The folders are there already.
  StoredName name;
  ASSERT_EQ(Save("x", name, EContent::kPicture), EStoreResult::kDone);
  for (int fail_at = 0; fail_at < 10; ++fail_at) {
    plan_->operations = 0;
    plan_->fail_at = fail_at;
    Save("whole", name, EContent::kPicture);
    store_->ForEach(EContent::kPicture, [this](const StoredEntry& entry) {
      if (!entry.is_temporary) {
        const std::string bytes = ReadAll(entry.name);
        EXPECT_TRUE(bytes == "x" || bytes == "whole") << bytes;
      }
      return true;
    });
  }
}

TEST_F(PowerCutTest, AFullDiskIsToldFromABrokenOne) {
  for (const int error : {ENOSPC, EDQUOT}) {
    for (int fail_at = 0; fail_at < 4; ++fail_at) {
      Reopen();
      plan_->error = error;
      plan_->fail_at = fail_at;
      StoredName name;
      const std::string bytes = fail_at % 2 == 0 ? "x" : kLargeBytes;
      EXPECT_EQ(Save(bytes, name), EStoreResult::kNoSpace) << fail_at;
      EXPECT_EQ(CountStored(), 0U);
    }
  }
  Reopen();
  plan_->fail_at = 0;
  StoredName name;
  EXPECT_EQ(SaveAt(name, 0, "x"), EStoreResult::kFailed);
  EXPECT_TRUE(name.id.empty());
}

TEST_F(PowerCutTest, AFailedPartLeavesTheObjectForAnotherTry) {
  StoredName name;
  ASSERT_EQ(SaveAt(name, 0, "test"), EStoreResult::kDone);
  plan_->operations = 0;
  plan_->fail_at = 1;
  plan_->error = ENOSPC;
  EXPECT_EQ(SaveAt(name, 4, "more"), EStoreResult::kNoSpace);
  plan_->fail_at = -1;
  EXPECT_EQ(SaveAt(name, 4, "more"), EStoreResult::kDone);
  CutPower();
  EXPECT_EQ(ReadAll(name), "testmore");
}

}  // namespace
}  // namespace Tansy::Host
