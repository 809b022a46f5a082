// The model of the disk itself: what was synced is always there, what was not may be lost in every way.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <string>

#include "Disk.h"
#include "ProveFolder.h"
#include "Trace.h"

namespace prove {
namespace {

constexpr std::uint64_t kRootNode = 1;

class DiskTest : public testing::Test {
 protected:
  DiskTest() { Add({.kind = ERecord::kRoot, .node = kRootNode}); }

  void Add(RecordHead head, const std::string& name = "", const std::string& other_name = "",
           const std::string& data = "") {
    head.name_size = name.size();
    head.other_name_size = other_name.size();
    head.data_size = data.size();
    trace_.append(reinterpret_cast<const char*>(&head), sizeof head);
    trace_ += name + other_name + data;
  }
  void Create(std::uint64_t node, const std::string& name) {
    Add({.kind = ERecord::kCreate, .node = node, .folder = kRootNode}, name);
  }
  void Write(std::uint64_t node, std::uint64_t offset, const std::string& data) {
    Add({.kind = ERecord::kWrite, .node = node, .offset = offset}, "", "", data);
  }
  void Resize(std::uint64_t node, std::uint64_t size) { Add({.kind = ERecord::kResize, .node = node, .size = size}); }
  void Rename(const std::string& from, const std::string& to) {
    Add({.kind = ERecord::kRename, .folder = kRootNode, .other_folder = kRootNode}, from, to);
  }
  void Remove(const std::string& name) { Add({.kind = ERecord::kRemove, .folder = kRootNode}, name); }
  std::uint64_t BeginSync(std::uint64_t node) {
    Add({.kind = ERecord::kSyncBegins, .node = node, .offset = ++syncs_});
    return syncs_;
  }
  void EndSync(std::uint64_t node, std::uint64_t number, int error = 0) {
    Add({.kind = ERecord::kSyncEnds, .error = static_cast<std::uint32_t>(error), .node = node, .offset = number});
  }
  void Sync(std::uint64_t node, int error = 0) { EndSync(node, BeginSync(node), error); }

  // What a file may hold behind the whole trace; "-" stands for a file that is not there.
  std::set<std::string> Contents(const std::string& name, int tries = 300) {
    const std::string path = folder_.GetPath() + "/trace";
    { std::ofstream(path, std::ios::binary) << trace_; }
    const CTrace trace(path);
    CDisk disk(trace);
    disk.AdvanceTo(trace.GetRecords().size());
    std::set<std::string> contents;
    for (int i = 0; i < tries; ++i) {
      std::mt19937_64 random(static_cast<std::uint64_t>(i));
      const std::string copy = folder_.GetPath() + "/disk";
      std::filesystem::create_directories(copy);
      disk.WriteTo(copy, static_cast<ECut>(i % 5), random);
      const auto files = FilesOf(copy);
      contents.insert(files.count(name) > 0 ? files.at(name) : "-");
      std::filesystem::remove_all(copy);
    }
    return contents;
  }

  const CProveFolder folder_;
  std::string trace_;
  std::uint64_t syncs_ = 0;
};

using Set = std::set<std::string>;

TEST_F(DiskTest, WhatWasSyncedIsAlwaysThere) {
  Create(2, "f");
  Write(2, 0, "abc");
  Sync(2);
  Sync(kRootNode);
  EXPECT_EQ(Contents("f"), (Set{"abc"}));
}

TEST_F(DiskTest, WithoutASyncOfTheFolderThereMayBeNoName) {
  Create(2, "f");
  Write(2, 0, "abc");
  Sync(2);
  EXPECT_EQ(Contents("f"), (Set{"-", "abc"}));
}

TEST_F(DiskTest, WithoutASyncOfTheFileBytesAndSizeMayBeMissing) {
  Create(2, "f");
  Sync(kRootNode);
  Write(2, 0, "abc");
  const Set contents = Contents("f");
  EXPECT_TRUE(contents.count("") > 0);
  EXPECT_TRUE(contents.count("abc") > 0);
  EXPECT_TRUE(contents.count(std::string(3, '\0')) > 0) << "the size without the bytes";
}

TEST_F(DiskTest, AnOverwrittenPageHoldsTheOldOrTheNewBytes) {
  Create(2, "f");
  Write(2, 0, "old");
  Sync(2);
  Sync(kRootNode);
  Write(2, 0, "new");
  EXPECT_EQ(Contents("f"), (Set{"old", "new"}));
}

TEST_F(DiskTest, PagesAreLostIndependently) {
  Create(2, "f");
  Write(2, 0, std::string(8192, 'a'));
  Sync(2);
  Sync(kRootNode);
  Write(2, 0, std::string(4096, 'b'));
  Write(2, 4096, std::string(4096, 'c'));
  const Set contents = Contents("f");
  EXPECT_TRUE(contents.count(std::string(4096, 'b') + std::string(4096, 'a')) > 0);
  EXPECT_TRUE(contents.count(std::string(4096, 'a') + std::string(4096, 'c')) > 0) << "the later one alone";
  EXPECT_TRUE(std::any_of(contents.begin(), contents.end(), [](const std::string& content) {
    return content[0] == 'b' && content[4095] == 'a';
  })) << "a tear inside a page";
}

TEST_F(DiskTest, OnlyWhatCameBeforeTheSyncBeganIsCertain) {
  Create(2, "f");
  Sync(kRootNode);
  Write(2, 0, "abc");
  const std::uint64_t sync = BeginSync(2);
  Write(2, 0, "def");
  EndSync(2, sync);
  EXPECT_EQ(Contents("f"), (Set{"abc", "def"}));
}

TEST_F(DiskTest, ASyncThatHasNotEndedPromisesNothing) {
  Create(2, "f");
  Sync(kRootNode);
  Write(2, 0, "abc");
  BeginSync(2);
  EXPECT_TRUE(Contents("f").count("") > 0);
}

TEST_F(DiskTest, AfterASyncThatFailedTheNextOneMakesNothingGood) {
  Create(2, "f");
  Sync(kRootNode);
  Write(2, 0, "abc");
  Sync(2, EIO);
  Sync(2);
  EXPECT_TRUE(Contents("f").count("") > 0);
  Write(2, 0, "def");
  Sync(2);
  EXPECT_EQ(Contents("f"), (Set{"def"})) << "but what is written again and synced is there";
}

TEST_F(DiskTest, ARenameIsThereOrNot) {
  Create(2, "old");
  Write(2, 0, "abc");
  Sync(2);
  Sync(kRootNode);
  Rename("old", "new");
  EXPECT_EQ(Contents("old"), (Set{"-", "abc"}));
  EXPECT_EQ(Contents("new"), (Set{"-", "abc"}));
  Sync(kRootNode);
  EXPECT_EQ(Contents("old"), (Set{"-"}));
  EXPECT_EQ(Contents("new"), (Set{"abc"}));
}

TEST_F(DiskTest, ARemovedFileMayComeBack) {
  Create(2, "f");
  Write(2, 0, "abc");
  Sync(2);
  Sync(kRootNode);
  Remove("f");
  EXPECT_EQ(Contents("f"), (Set{"-", "abc"}));
  Sync(kRootNode);
  EXPECT_EQ(Contents("f"), (Set{"-"}));
}

TEST_F(DiskTest, AFileThatGotShorterMayStillBeLong) {
  Create(2, "f");
  Write(2, 0, "abcdef");
  Sync(2);
  Sync(kRootNode);
  Resize(2, 3);
  EXPECT_TRUE(Contents("f").count("abcdef") > 0);
  EXPECT_TRUE(Contents("f").count("abc") > 0);
  Sync(2);
  EXPECT_EQ(Contents("f"), (Set{"abc"}));
}

// A log that is emptied must not seem to end in the middle of what it held.
TEST_F(DiskTest, AFileThatWasCutOffIsAllFromBeforeOrAllFromBehind) {
  const std::string old = std::string(4096, 'a') + std::string(4096, 'b') + std::string(4096, 'c');
  Create(2, "f");
  Write(2, 0, old);
  Sync(2);
  Sync(kRootNode);
  Resize(2, 0);
  EXPECT_EQ(Contents("f"), (Set{old, ""}));
  Write(2, 0, "new");
  EXPECT_EQ(Contents("f"), (Set{old, "", "new", std::string(3, '\0')}));
}

TEST_F(DiskTest, ANumberThatIsUsedAgainIsAnotherFile) {
  Create(2, "f");
  Write(2, 0, "abc");
  Sync(2);
  Sync(kRootNode);
  Remove("f");
  Create(2, "g");
  Write(2, 0, "xyz");
  Sync(2);
  EXPECT_EQ(Contents("f"), (Set{"-", "abc"}));
}

}  // namespace
}  // namespace prove
