#include "StoreRoom.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "fakes/ManualClock.h"
#include "fakes/TempFolder.h"

namespace Tansy::Host {
namespace {

constexpr std::uint64_t kMiB = std::uint64_t{1024} * 1024;

// A folder on a disk whose room is what a test says.
class CRoomyFolder final : public HostSystem::IFolder {
 public:
  int Create(const std::string&, std::unique_ptr<HostSystem::IFile>&) override { return ENOSYS; }
  int OpenForReading(const std::string&, std::unique_ptr<HostSystem::IFile>&) override { return ENOSYS; }
  int OpenForWriting(const std::string&, std::unique_ptr<HostSystem::IFile>&) override { return ENOSYS; }
  int OpenFolder(const std::string&, std::unique_ptr<HostSystem::IFolder>&) override { return ENOSYS; }
  int MakeFolder(const std::string&) override { return ENOSYS; }
  int Rename(const std::string&, const std::string&) override { return ENOSYS; }
  int Remove(const std::string&) override { return ENOSYS; }
  int RemoveFolder(const std::string&) override { return ENOSYS; }
  int List(std::vector<HostSystem::FolderEntry>&) override { return ENOSYS; }
  int Sync() override { return ENOSYS; }
  int GetRoom(std::uint64_t& total, std::uint64_t& available) override {
    ++asked;
    total = size;
    available = room;
    return error;
  }

  std::uint64_t size = 1000 * kMiB;
  std::uint64_t room = 180 * kMiB;
  int error = 0;
  int asked = 0;
};

class StoreRoomTest : public testing::Test {
 protected:
  bool Fits(std::uint64_t bytes) { return static_cast<bool>(CStoreRoom::CClaim(room_, bytes)); }

  Tests::CManualClock clock_;
  CRoomyFolder folder_;
  CStoreRoom room_{folder_};
};

TEST_F(StoreRoomTest, TheLastRoomStaysFree) {
  EXPECT_TRUE(Fits(84 * kMiB));
  EXPECT_FALSE(Fits(84 * kMiB + 1));
  folder_.room = 96 * kMiB;
  clock_.Advance(1);
  EXPECT_FALSE(Fits(1));
  folder_.room = 0;
  clock_.Advance(1);
  EXPECT_FALSE(Fits(1));
  EXPECT_TRUE(Fits(0));
}

TEST_F(StoreRoomTest, ASmallDiskKeepsAnEighthFree) {
  folder_.size = 8 * kMiB;
  folder_.room = 3 * kMiB;
  EXPECT_TRUE(Fits(2 * kMiB));
  EXPECT_FALSE(Fits(2 * kMiB + 1));
}

TEST_F(StoreRoomTest, WhatIsBeingWrittenCounts) {
  const CStoreRoom::CClaim first(room_, 50 * kMiB);
  ASSERT_TRUE(first);
  EXPECT_TRUE(Fits(34 * kMiB));
  EXPECT_FALSE(Fits(34 * kMiB + 1));
  clock_.Advance(5);
  EXPECT_FALSE(Fits(34 * kMiB + 1)) << "the system does not count it yet";
}

TEST_F(StoreRoomTest, RoomThatOthersTakeOrGiveBackIsSeen) {
  EXPECT_TRUE(Fits(1 * kMiB));
  folder_.room = 97 * kMiB;
  clock_.Advance(1);
  EXPECT_FALSE(Fits(2 * kMiB)) << "a second later";
  folder_.room = 99 * kMiB;
  EXPECT_TRUE(Fits(2 * kMiB)) << "at once, because nothing is refused without a look";
}

TEST_F(StoreRoomTest, TheSystemIsAskedOnceASecond) {
  for (int i = 0; i < 1000; ++i) {
    EXPECT_TRUE(Fits(1000));
  }
  EXPECT_EQ(folder_.asked, 1);
  clock_.Advance(1);
  EXPECT_TRUE(Fits(1000));
  EXPECT_EQ(folder_.asked, 2);
}

TEST_F(StoreRoomTest, WithoutAnAnswerEverythingFits) {
  folder_.error = ENOSYS;
  folder_.room = 0;
  EXPECT_TRUE(Fits(1000000 * kMiB));
  EXPECT_FALSE(room_.IsShort());
  folder_.error = 0;
  folder_.size = 0;
  clock_.Advance(1);
  EXPECT_TRUE(Fits(1000000 * kMiB)) << "a disk without any bytes is no answer";
}

TEST_F(StoreRoomTest, RoomIsShortBeforeItIsGone) {
  folder_.room = 192 * kMiB;
  EXPECT_FALSE(room_.IsShort());
  folder_.room = 191 * kMiB;
  EXPECT_TRUE(room_.IsShort());
  EXPECT_TRUE(Fits(1 * kMiB));
}

TEST(StoreRoomSystemTest, AFolderTellsTheRoomOfItsDisk) {
  Tests::CTempFolder temp;
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> folder = HostSystem::OpenFolder(temp.GetPath(), error);
  ASSERT_NE(folder, nullptr);
  std::uint64_t total = 0;
  std::uint64_t available = 0;
  ASSERT_EQ(folder->GetRoom(total, available), 0);
  EXPECT_GT(available, 0U);
  EXPECT_GT(total, available);
}

}  // namespace
}  // namespace Tansy::Host
