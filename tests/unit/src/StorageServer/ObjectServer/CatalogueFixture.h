// What the tests of the catalogue and of its statements share: a database of their own, a clock that stands still, and
// the log.
#ifndef TANSY_TESTS_UNIT_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_FIXTURE_H
#define TANSY_TESTS_UNIT_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "db_layer/DbLayer.h"
#include "fakes/CapturingLogSink.h"
#include "fakes/FailingDatabase.h"
#include "fakes/ManualClock.h"

namespace Tansy::CloudStorage {

class CatalogueFixture : public testing::Test {
 protected:
  // The clock's time as the statements write it.
  static constexpr const char* kNow = "2026-11-03 08:05:09.000";

  CatalogueFixture() { EXPECT_TRUE(db_layer::Module_Register(database_.Param(), "platform")); }
  ~CatalogueFixture() override {
    ForgetCatalogue();
    db_layer::Module_Unregister("platform");
  }

  // Checks that exactly one line with this format was written: at this level, by this function of the module, with this
  // text between the function's name and the place.
  void ExpectLine(int level, const std::string& function, std::string_view format, const std::string& text) const {
    const std::vector<Tests::LogLine> lines = log_->Find(format);
    ASSERT_EQ(lines.size(), 1U) << format;
    EXPECT_EQ(lines[0].level, level);
    EXPECT_EQ(lines[0].module, "platform.LocalStorage");
    const std::string rest = lines[0].text.substr(0, lines[0].text.rfind('['));
    EXPECT_EQ(rest, "[Tansy::CloudStorage::" + function + "]" + text);
  }

  // How many lines of this level and above were written.
  std::size_t CountLines(int lowest_level) const {
    std::size_t count = 0;
    for (const Tests::LogLine& line : log_->Lines()) {
      count += line.level >= lowest_level ? 1 : 0;
    }
    return count;
  }

  // The statements but for those that take a number from a sequence.
  std::vector<std::string> Changes() const {
    std::vector<std::string> statements = database_.Statements();
    std::erase_if(statements, [](const std::string& sql) { return sql.find("nextval") != std::string::npos; });
    return statements;
  }

  // Takes all connections away; only Heal brings them back.
  void LoseConnections() {
    database_.FailConnections();
    database_.BreakConnections();
  }

  // The catalogue outlives a test; what is in it does not.
  void ForgetCatalogue() {
    database_.SetHook(nullptr);
    database_.Heal();
    std::map<std::string, BucketInfo> buckets;
    manager_.GetBucketList(buckets);
    std::set<std::uint32_t> ids;
    for (const auto& [name, bucket] : buckets) {
      ids.insert(bucket.id);
    }
    EXPECT_TRUE(manager_.RemoveBucket(ids));
    std::map<std::string, std::string> tasks;
    manager_.GetTaskUpdateTime(tasks);
    for (const auto& [task_id, time] : tasks) {
      EXPECT_TRUE(manager_.RemoveObjectTask(task_id));
    }
  }

  // Makes a bucket in the catalogue and in the database, and forgets its log lines and statements.
  BucketInfo MakeBucket(const std::string& name) {
    BucketInfo bucket;
    bucket.guid = "guid-of-" + name;
    bucket.name = name;
    EXPECT_TRUE(manager_.AddBucket(bucket));
    StartOver();
    return bucket;
  }

  static ObjectInfo Object(const std::string& bucket_name, const std::string& name) {
    ObjectInfo object;
    object.guid = "guid-of-" + name;
    object.name = name;
    object.bucket_name = bucket_name;
    object.size = 1000;
    object.update_time = "2026-11-03 08:00:00";
    object.url = "fs01ab-cd-" + name + ".d";
    return object;
  }

  ObjectInfo MakeObject(const std::string& bucket_name, const std::string& name) {
    ObjectInfo object = Object(bucket_name, name);
    EXPECT_TRUE(manager_.AddObject(object));
    StartOver();
    return object;
  }

  static ObjectTaskInfo Part(const std::string& task_id, std::uint32_t part_num) {
    ObjectTaskInfo task;
    task.task_id = task_id;
    task.object_name = "object";
    task.bucket_name = "bucket";
    task.size = 100 * part_num;
    task.part_num = part_num;
    task.update_time = "2026-11-03 08:00:0" + std::to_string(part_num);
    task.url = "url-of-" + std::to_string(part_num);
    return task;
  }

  ObjectTaskInfo MakeTask(const std::string& task_id, std::uint32_t part_num = 1) {
    ObjectTaskInfo task = Part(task_id, part_num);
    EXPECT_TRUE(manager_.AddObjectTask(task));
    StartOver();
    return task;
  }

  // Runs `beside` on a thread of its own while the first statement with this text is under way in `work`: the statement
  // waits until `beside` is done, or, when `beside` itself waits for `work`, a while.
  template <class Work, class Beside>
  void RunBeside(const std::string& statement, Work work, Beside beside) {
    std::atomic<bool> started{false};
    std::promise<void> done;
    std::thread other;
    database_.SetHook([&](const std::string& sql) {
      if (sql.find(statement) != std::string::npos && !started.exchange(true)) {
        other = std::thread([&] {
          beside();
          done.set_value();
        });
        done.get_future().wait_for(std::chrono::milliseconds(200));
      }
    });
    work();
    ASSERT_TRUE(started) << "no statement with " << statement;
    other.join();
    database_.SetHook(nullptr);
  }

  // Forgets the log lines and statements so far.
  void StartOver() {
    log_->Clear();
    database_.ForgetStatements();
  }

  Tests::CManualClock clock_;
  Tests::CLogCapture log_;
  Tests::CFailingDatabase database_;
  CObjectStorageManager& manager_ = CObjectStorageManager::Instance();
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_TESTS_UNIT_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_FIXTURE_H
