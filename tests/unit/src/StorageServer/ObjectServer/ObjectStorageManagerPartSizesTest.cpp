#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "StorageServer/ObjectServer/ObjectStorageManager.h"

namespace Tansy::CloudStorage {
namespace {

constexpr std::uint32_t kUntouched = 77;

// Every test has a task of its own; nothing here reaches the database.
class PartSizes : public testing::Test {
 protected:
  ~PartSizes() override { manager_.RemovePartSizeInfo(task_id_); }

  // True, or the agreed part size as text.
  std::string Check(std::uint32_t part_num, std::uint32_t size) {
    std::uint32_t part_size = kUntouched;
    if (manager_.CheckPartSize(task_id_, part_num, size, part_size)) {
      EXPECT_EQ(part_size, kUntouched);
      return "first";
    }
    return std::to_string(part_size);
  }

  PartSizeInfo Stored() {
    PartSizeInfo info;
    EXPECT_TRUE(manager_.GetFirstPartInfo(task_id_, info));
    return info;
  }

  CObjectStorageManager& manager_ = CObjectStorageManager::Instance();
  const std::string task_id_ = testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(PartSizes, KeepTheFirstPartThatArrives) {
  EXPECT_EQ(Check(3, 500), "first");
  const PartSizeInfo info = Stored();
  EXPECT_EQ(info.first_part_num, 3U);
  EXPECT_EQ(info.first_part_size, 500U);
  EXPECT_EQ(info.part_size, 0U);
  EXPECT_EQ(info.first_part_path, "");
  EXPECT_NE(info.file_mutex, nullptr);
}

TEST_F(PartSizes, TakeTheSizeOfALowerSecondPart) {
  EXPECT_EQ(Check(3, 500), "first");
  EXPECT_EQ(Check(1, 800), "800");
  EXPECT_EQ(Stored().part_size, 800U);
}

TEST_F(PartSizes, TakeTheSizeOfTheFirstForAHigherSecondPart) {
  EXPECT_EQ(Check(1, 800), "first");
  EXPECT_EQ(Check(2, 300), "800");
  EXPECT_EQ(Stored().part_size, 800U);
}

TEST_F(PartSizes, StayOpenWhileTheFirstPartIsSentAgain) {
  EXPECT_EQ(Check(2, 800), "first");
  EXPECT_EQ(Check(2, 900), "first");
  EXPECT_EQ(Stored().first_part_size, 800U) << "the new size comes with SetFirstPartInfo";
}

TEST_F(PartSizes, OnceSettledHoldForEveryPart) {
  EXPECT_EQ(Check(2, 800), "first");
  EXPECT_EQ(Check(1, 700), "700");
  EXPECT_EQ(Check(3, 10), "700");
  EXPECT_EQ(Check(2, 800), "700");
  EXPECT_EQ(Check(1, 900), "700");
}

TEST_F(PartSizes, CompareNumbersUnsigned) {
  EXPECT_EQ(Check(0xFFFFFFFF, 500), "first");
  EXPECT_EQ(Check(1, 800), "800");
}

TEST_F(PartSizes, StoreSizeAndPathOfTheFirstPart) {
  EXPECT_EQ(Check(2, 800), "first");
  PartSizeInfo info;
  info.first_part_num = 2;
  info.first_part_size = 850;
  info.first_part_path = "./localstoragetmp\\id_2";
  info.part_size = 4711;
  info.reserve = "not taken";
  EXPECT_TRUE(manager_.SetFirstPartInfo(task_id_, info));
  const PartSizeInfo stored = Stored();
  EXPECT_EQ(stored.first_part_size, 850U);
  EXPECT_EQ(stored.first_part_path, "./localstoragetmp\\id_2");
  EXPECT_EQ(stored.part_size, 0U);
  EXPECT_EQ(stored.reserve, "");
  EXPECT_NE(stored.file_mutex, nullptr);
}

TEST_F(PartSizes, RefuseAnotherFirstPart) {
  EXPECT_EQ(Check(2, 800), "first");
  PartSizeInfo info;
  info.first_part_num = 1;
  info.first_part_size = 5;
  EXPECT_FALSE(manager_.SetFirstPartInfo(task_id_, info));
  EXPECT_EQ(Stored().first_part_num, 2U);
  EXPECT_EQ(Stored().first_part_size, 800U);
}

TEST_F(PartSizes, KeepAFirstPartWithoutRecordButSaySo) {
  PartSizeInfo info;
  info.first_part_num = 2;
  info.first_part_size = 800;
  info.first_part_path = "path";
  info.reserve = "carried";
  EXPECT_FALSE(manager_.SetFirstPartInfo(task_id_, info));
  EXPECT_EQ(Stored().first_part_path, "path");
  EXPECT_EQ(Stored().reserve, "carried");
  EXPECT_TRUE(manager_.SetFirstPartInfo(task_id_, info));
}

TEST_F(PartSizes, ShareOneMutexATask) {
  std::shared_ptr<std::mutex> first;
  EXPECT_FALSE(manager_.GetPartFileMutex(task_id_, first));
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(Check(1, 800), "first");
  std::shared_ptr<std::mutex> second;
  ASSERT_TRUE(manager_.GetPartFileMutex(task_id_, first));
  ASSERT_TRUE(manager_.GetPartFileMutex(task_id_, second));
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first, Stored().file_mutex);
}

TEST_F(PartSizes, AreGoneAfterRemoval) {
  PartSizeInfo info;
  EXPECT_FALSE(manager_.GetFirstPartInfo(task_id_, info));
  EXPECT_FALSE(manager_.RemovePartSizeInfo(task_id_));
  EXPECT_EQ(Check(1, 800), "first");
  EXPECT_TRUE(manager_.RemovePartSizeInfo(task_id_));
  EXPECT_FALSE(manager_.RemovePartSizeInfo(task_id_));
  EXPECT_FALSE(manager_.GetFirstPartInfo(task_id_, info));
  EXPECT_EQ(Check(2, 5), "first") << "a new start";
}

TEST_F(PartSizes, LetOneOfManyPartsBeTheFirst) {
  std::atomic<int> firsts{0};
  std::vector<std::thread> threads;
  for (std::uint32_t part_num = 1; part_num <= 8; ++part_num) {
    threads.emplace_back([&, part_num] {
      std::uint32_t part_size = 0;
      if (manager_.CheckPartSize(task_id_, part_num, 800, part_size)) {
        ++firsts;
      } else {
        EXPECT_EQ(part_size, 800U);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(firsts, 1);
}

}  // namespace
}  // namespace Tansy::CloudStorage
