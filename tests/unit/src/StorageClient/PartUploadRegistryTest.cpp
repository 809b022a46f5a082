#include "StorageClient/PartUploadRegistry.h"

#include <gtest/gtest.h>

#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TansyBase/GuidUtil.h"

namespace Tansy::CloudStorage {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The registry lives as long as the process, so every test takes ids of its own.
class PartUploadRegistryTest : public testing::Test {
 protected:
  PartRecord Part(std::int32_t number, std::int32_t total = 4) const {
    PartRecord record;
    record.upload_id = id_;
    record.data = "bytes";
    record.size = 5;
    record.part_number = number;
    record.total_parts = total;
    return record;
  }

  bool Finish(std::int32_t number, std::int32_t status = kPartUploaded) {
    PartRecord record = Part(number);
    record.done = true;
    record.status = status;
    return registry_.FinishPart(record);
  }

  bool Query() { return registry_.QueryParts(id_, failed_status_, percent_); }

  CPartUploadRegistry& registry_ = CPartUploadRegistry::Instance();
  const std::string id_ = TansyBase::GuidUtil::CreateGuid();
  std::int32_t failed_status_ = 0;
  std::int32_t percent_ = -1;
};

TEST_F(PartUploadRegistryTest, IsOneForTheProcess) {
  std::vector<std::thread> threads;
  std::vector<CPartUploadRegistry*> instances(8);
  for (std::size_t i = 0; i < instances.size(); ++i) {
    threads.emplace_back([&instances, i] { instances[i] = &CPartUploadRegistry::Instance(); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const CPartUploadRegistry* instance : instances) {
    EXPECT_EQ(instance, &registry_);
  }
}

TEST_F(PartUploadRegistryTest, KnowsNothingOfAnUnknownUpload) {
  EXPECT_FALSE(Query());
  EXPECT_EQ(failed_status_, 0);
  EXPECT_EQ(percent_, -1);
  EXPECT_FALSE(Finish(1));
}

TEST_F(PartUploadRegistryTest, IsOverWhenEveryRegisteredPartIsDone) {
  EXPECT_TRUE(registry_.AddPart(id_, Part(1)));
  EXPECT_TRUE(registry_.AddPart(id_, Part(2)));
  EXPECT_FALSE(Query());
  EXPECT_EQ(percent_, 0);
  EXPECT_TRUE(Finish(2));
  EXPECT_FALSE(Query());
  EXPECT_EQ(percent_, 25);
  EXPECT_TRUE(Finish(1));
  EXPECT_TRUE(Query());
  EXPECT_EQ(failed_status_, 0);
  EXPECT_EQ(percent_, 50);
  EXPECT_FALSE(Query()) << "a finished upload is forgotten";
}

TEST_F(PartUploadRegistryTest, RoundsPercentagesDown) {
  registry_.AddPart(id_, Part(1, 3));
  registry_.AddPart(id_, Part(2, 3));
  registry_.AddPart(id_, Part(3, 3));
  Finish(1);
  Query();
  EXPECT_EQ(percent_, 33);
  Finish(2);
  Query();
  EXPECT_EQ(percent_, 66);
}

TEST_F(PartUploadRegistryTest, SeesAFailureOnlyBehindPartsThatAreDone) {
  registry_.AddPart(id_, Part(1));
  registry_.AddPart(id_, Part(2));
  registry_.AddPart(id_, Part(3));
  Finish(2, kPartFailed);
  EXPECT_FALSE(Query()) << "part 1 is still under way";
  EXPECT_EQ(failed_status_, 0);
  Finish(1);
  EXPECT_TRUE(Query());
  EXPECT_EQ(failed_status_, kPartFailed);
  EXPECT_EQ(percent_, 50) << "failed parts count as finished";
  EXPECT_FALSE(Finish(3)) << "the parts are forgotten";
}

TEST_F(PartUploadRegistryTest, DoesNotFinishAPartThatWasNeverAdded) {
  registry_.AddPart(id_, Part(1));
  EXPECT_FALSE(Finish(2));
  Query();
  EXPECT_EQ(percent_, 0);
}

TEST_F(PartUploadRegistryTest, KeepsTheProgressOfAFinishedUpload) {
  registry_.AddPart(id_, Part(1, 2));
  Finish(1);
  EXPECT_TRUE(Query());
  EXPECT_EQ(percent_, 50);
  registry_.AddPart(id_, Part(2, 1000));
  EXPECT_FALSE(Query());
  EXPECT_EQ(percent_, 50) << "neither the total nor the count starts over";
}

TEST_F(PartUploadRegistryTest, WakesAWaiterWhenAPartIsFinished) {
  registry_.AddPart(id_, Part(1));
  std::thread finisher([this] {
    std::this_thread::sleep_for(milliseconds(20));
    Finish(1);
  });
  const auto begin = steady_clock::now();
  EXPECT_EQ(registry_.WaitForFinishedPart(id_, 0, milliseconds(60000)), 1);
  EXPECT_LT(steady_clock::now() - begin, milliseconds(30000));
  finisher.join();
}

TEST_F(PartUploadRegistryTest, DoesNotWaitForWhatHasHappened) {
  registry_.AddPart(id_, Part(1));
  Finish(1);
  const auto begin = steady_clock::now();
  EXPECT_EQ(registry_.WaitForFinishedPart(id_, 0, milliseconds(60000)), 1);
  EXPECT_LT(steady_clock::now() - begin, milliseconds(30000));
}

TEST_F(PartUploadRegistryTest, GivesUpWaitingAfterTheRound) {
  registry_.AddPart(id_, Part(1));
  const auto begin = steady_clock::now();
  EXPECT_EQ(registry_.WaitForFinishedPart(id_, 0, milliseconds(30)), 0);
  EXPECT_GE(steady_clock::now() - begin, milliseconds(30));
}

TEST_F(PartUploadRegistryTest, GivesAPiecewiseUploadToOneCallerAtATime) {
  EXPECT_FALSE(registry_.BeginPiece(id_)) << "unknown";
  EXPECT_FALSE(registry_.EndPiece(id_));
  EXPECT_TRUE(registry_.AddTask({id_, "node:1", id_, {}}));
  EXPECT_TRUE(registry_.BeginPiece(id_));
  EXPECT_FALSE(registry_.BeginPiece(id_));
  EXPECT_TRUE(registry_.EndPiece(id_));
  EXPECT_TRUE(registry_.BeginPiece(id_));
  EXPECT_TRUE(registry_.RemoveTask(id_));
}

TEST_F(PartUploadRegistryTest, KeepsPiecewiseUploadsByKey) {
  const std::string key = id_ + ".pfile";
  std::int32_t last = 0;
  PieceTask task;
  std::list<SPartInfo> parts;
  EXPECT_FALSE(registry_.FindTask(key, last, task));
  EXPECT_FALSE(registry_.AddPiece(key, {1, 10}));
  EXPECT_FALSE(registry_.GetAllPieces(key, parts));
  EXPECT_FALSE(registry_.RemoveTask(key));

  EXPECT_TRUE(registry_.AddTask({id_, "node:1", key, {}}));
  EXPECT_FALSE(registry_.AddTask({"other", "node:2", key, {}})) << "the key is taken";
  last = 77;
  EXPECT_TRUE(registry_.FindTask(key, last, task));
  EXPECT_EQ(last, 77) << "no piece, no number";
  EXPECT_EQ(task.upload_id, id_);
  EXPECT_EQ(task.best_node, "node:1");
  EXPECT_EQ(task.key, key);

  EXPECT_TRUE(registry_.AddPiece(key, {2, 20}));
  EXPECT_TRUE(registry_.AddPiece(key, {1, 10}));
  EXPECT_TRUE(registry_.FindTask(key, last, task));
  EXPECT_EQ(last, 2);

  EXPECT_TRUE(registry_.GetAllPieces(key, parts));
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_EQ(parts.front().part_number, 1);
  EXPECT_EQ(parts.front().part_size, 10u);
  EXPECT_EQ(parts.front().etag, "");
  EXPECT_EQ(parts.back().part_number, 2);
  EXPECT_EQ(parts.back().part_size, 20u);

  EXPECT_TRUE(registry_.RemovePiecesFrom(key, 2));
  EXPECT_TRUE(registry_.FindTask(key, last, task));
  EXPECT_EQ(last, 1);

  EXPECT_TRUE(registry_.SetTail(key, std::make_shared<const std::string>("tail")));
  EXPECT_TRUE(registry_.FindTask(key, last, task));
  EXPECT_EQ(*task.tail, "tail");

  EXPECT_TRUE(registry_.RemoveTask(key));
  EXPECT_FALSE(registry_.RemoveTask(key));
  EXPECT_FALSE(registry_.RemovePiecesFrom(key, 1));
  EXPECT_FALSE(registry_.SetTail(key, nullptr));
  EXPECT_FALSE(registry_.FindTask(key, last, task));
}

}  // namespace
}  // namespace Tansy::CloudStorage
