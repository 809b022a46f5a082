#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "CatalogueFixture.h"

namespace Tansy::CloudStorage {
namespace {

using Texts = std::vector<std::string>;

// Reaches the catalogue's private map of tasks. C++ lets an explicit instantiation name a private member.
using TaskMap = std::map<std::string, TaskPartSet>;
template <TaskMap CObjectStorageManager::*Member>
struct TaskAccess {
  friend TaskMap& TasksOf(CObjectStorageManager& manager) { return manager.*Member; }
};
TaskMap& TasksOf(CObjectStorageManager& manager);
template struct TaskAccess<&CObjectStorageManager::tasks_>;

class ObjectStorageManagerTasks : public CatalogueFixture {
 protected:
  Texts Rows(const std::string& column) {
    return database_.Column("SELECT * FROM platform.local_object_task ORDER BY task_id, part_num", column);
  }
};

TEST_F(ObjectStorageManagerTasks, AddsATaskWithItsFirstRow) {
  ObjectTaskInfo task = Part("task", 1);
  ASSERT_TRUE(manager_.AddObjectTask(task));
  EXPECT_NE(task.id, 0U);
  ObjectTaskInfo found;
  ASSERT_TRUE(manager_.GetTaskInfo("task", 1, found));
  EXPECT_EQ(found.id, task.id);
  EXPECT_EQ(found.task_id, "task");
  EXPECT_EQ(found.object_name, "object");
  EXPECT_EQ(found.bucket_name, "bucket");
  EXPECT_EQ(found.size, 100U);
  EXPECT_EQ(found.part_num, 1U);
  EXPECT_EQ(found.update_time, "2026-11-03 08:00:01");
  EXPECT_EQ(found.url, "url-of-1");
  EXPECT_EQ(Rows("task_id"), Texts{"task"});
  EXPECT_EQ(CountLines(logging::kDatabase), 0U);
}

TEST_F(ObjectStorageManagerTasks, AddsNoTaskThatTheDatabaseRefuses) {
  for (const char* refused : {"nextval", "INSERT"}) {
    StartOver();
    database_.FailStatementsWith(refused);
    ObjectTaskInfo task = Part("refused", 1);
    EXPECT_FALSE(manager_.AddObjectTask(task));
    ExpectLine(5, "CObjectStorageManager::AddObjectTask", "[%s]AddObjectTask failed, db operate failed.[%s(%d)]",
               "AddObjectTask failed, db operate failed.");
    database_.Heal();
    TaskPartSet parts;
    EXPECT_FALSE(manager_.GetAllTask("refused", parts));
  }
}

TEST_F(ObjectStorageManagerTasks, KeepTheRowOfATaskThatExistsAlready) {
  MakeTask("task");
  ObjectTaskInfo again = Part("task", 2);
  EXPECT_FALSE(manager_.AddObjectTask(again));
  ExpectLine(5, "CObjectStorageManager::AddObjectTask", "[%s]AddObjectTask failed, task[%s] already exist.[%s(%d)]",
             "AddObjectTask failed, task[task] already exist.");
  EXPECT_EQ(Rows("part_num"), (Texts{"1", "2"}));
  ObjectTaskInfo found;
  EXPECT_FALSE(manager_.GetTaskInfo("task", 2, found));
}

TEST_F(ObjectStorageManagerTasks, InsertsANewPart) {
  const ObjectTaskInfo first = MakeTask("task");
  ObjectTaskInfo part = Part("task", 10);
  ASSERT_TRUE(manager_.InsertObjectTask(part));
  ObjectTaskInfo two = Part("task", 2);
  ASSERT_TRUE(manager_.InsertObjectTask(two));
  TaskPartSet parts;
  ASSERT_TRUE(manager_.GetAllTask("task", parts));
  std::vector<std::uint32_t> numbers;
  for (const ObjectTaskInfo& each : parts) {
    numbers.push_back(each.part_num);
  }
  EXPECT_EQ(numbers, (std::vector<std::uint32_t>{1, 2, 10})) << "by number, not by text";
  EXPECT_EQ(Rows("part_num"), (Texts{"1", "2", "10"}));
}

TEST_F(ObjectStorageManagerTasks, ReplacesAPartThatIsSentAgain) {
  const ObjectTaskInfo first = MakeTask("task");
  ObjectTaskInfo again = Part("task", 1);
  again.id = 4711;
  again.size = 555;
  again.update_time = "later";
  again.url = "new url";
  ASSERT_TRUE(manager_.InsertObjectTask(again));
  EXPECT_EQ(again.id, first.id);
  EXPECT_EQ(database_.Statements(),
            Texts{"UPDATE platform.local_object_task set size=555, update_time='later', url='new url' where id=" +
                  std::to_string(first.id)});
  ObjectTaskInfo found;
  ASSERT_TRUE(manager_.GetTaskInfo("task", 1, found));
  EXPECT_EQ(found.id, first.id);
  EXPECT_EQ(found.size, 555U);
  EXPECT_EQ(found.update_time, "later");
  EXPECT_EQ(found.url, "new url");
  EXPECT_EQ(Rows("size"), Texts{"555"});
}

TEST_F(ObjectStorageManagerTasks, InsertsNoPartOfAMissingTask) {
  ObjectTaskInfo part = Part("missing", 1);
  EXPECT_FALSE(manager_.InsertObjectTask(part));
  ExpectLine(5, "CObjectStorageManager::InsertObjectTask", "[%s]InsertObjectTask failed, task[%s] not exist.[%s(%d)]",
             "InsertObjectTask failed, task[missing] not exist.");
  EXPECT_EQ(database_.Statements(), Texts{});
}

TEST_F(ObjectStorageManagerTasks, InsertsNoPartThatTheDatabaseRefuses) {
  MakeTask("task");
  ObjectTaskInfo part = Part("task", 2);
  database_.FailStatementsWith("INSERT");
  EXPECT_FALSE(manager_.InsertObjectTask(part));
  ExpectLine(5, "CObjectStorageManager::InsertObjectTask",
             "[%s]InsertObjectTask failed, insert db operate failed.[%s(%d)]",
             "InsertObjectTask failed, insert db operate failed.");
  ObjectTaskInfo found;
  EXPECT_FALSE(manager_.GetTaskInfo("task", 2, found));

  database_.FailStatementsWith("UPDATE");
  part = Part("task", 1);
  part.size = 555;
  EXPECT_FALSE(manager_.InsertObjectTask(part));
  ExpectLine(5, "CObjectStorageManager::InsertObjectTask",
             "[%s]InsertObjectTask failed, update db operate failed.[%s(%d)]",
             "InsertObjectTask failed, update db operate failed.");
  ASSERT_TRUE(manager_.GetTaskInfo("task", 1, found));
  EXPECT_EQ(found.size, 100U);
}

TEST_F(ObjectStorageManagerTasks, LogsWhatIsNotFound) {
  TaskPartSet parts;
  EXPECT_FALSE(manager_.GetAllTask("missing", parts));
  ExpectLine(5, "CObjectStorageManager::GetAllTask", "[%s]GetTaskInfo failed, task[%s] not exist.[%s(%d)]",
             "GetTaskInfo failed, task[missing] not exist.");
  log_->Clear();
  ObjectTaskInfo part;
  EXPECT_FALSE(manager_.GetTaskInfo("missing", 1, part));
  ExpectLine(5, "CObjectStorageManager::GetTaskInfo", "[%s]GetTaskInfo failed, task[%s] not exist.[%s(%d)]",
             "GetTaskInfo failed, task[missing] not exist.");
  MakeTask("task");
  EXPECT_FALSE(manager_.GetTaskInfo("task", 7, part));
  ExpectLine(5, "CObjectStorageManager::GetTaskInfo", "[%s]GetTaskInfo failed, task[%s] part[%d] not exist.[%s(%d)]",
             "GetTaskInfo failed, task[task] part[7] not exist.");
  EXPECT_FALSE(manager_.GetTaskInfo("task", 0xFFFFFFFF, part));
}

TEST_F(ObjectStorageManagerTasks, CopyTheWholeSet) {
  MakeTask("task");
  TaskPartSet parts = {Part("stale", 9)};
  ASSERT_TRUE(manager_.GetAllTask("task", parts));
  ASSERT_EQ(parts.size(), 1U);
  EXPECT_EQ(parts.begin()->task_id, "task");
}

TEST_F(ObjectStorageManagerTasks, CheckTellsTheFourCases) {
  MakeTask("task", 2);
  ObjectTaskInfo part = Part("task", 2);
  EXPECT_EQ(manager_.CheckTaskInfoExist(part), 0);
  part.size = 1;
  EXPECT_EQ(manager_.CheckTaskInfoExist(part), 3);
  part = Part("task", 1);
  EXPECT_EQ(manager_.CheckTaskInfoExist(part), 2);
  EXPECT_EQ(CountLines(logging::kTrace), 0U);
  part = Part("missing", 2);
  EXPECT_EQ(manager_.CheckTaskInfoExist(part), 1);
  ExpectLine(5, "CObjectStorageManager::CheckTaskInfoExist",
             "[%s]CheckTaskInfoExist failed, task[%s] not exist.[%s(%d)]",
             "CheckTaskInfoExist failed, task[missing] not exist.");
}

TEST_F(ObjectStorageManagerTasks, CheckRefusesAnotherObjectsTask) {
  constexpr const char* kFormat =
      "[%s]CheckTaskInfoExist failed, task[%s] belong bucketname[%s] or objectname[%s] invalid.[%s(%d)]";
  MakeTask("task");
  ObjectTaskInfo part = Part("task", 1);
  part.bucket_name = "elsewhere";
  EXPECT_EQ(manager_.CheckTaskInfoExist(part), 1);
  ExpectLine(5, "CObjectStorageManager::CheckTaskInfoExist", kFormat,
             "CheckTaskInfoExist failed, task[task] belong bucketname[elsewhere] or objectname[object] invalid.");
  log_->Clear();
  part = Part("task", 1);
  part.object_name = "other";
  EXPECT_EQ(manager_.CheckTaskInfoExist(part), 1);
  ExpectLine(5, "CObjectStorageManager::CheckTaskInfoExist", kFormat,
             "CheckTaskInfoExist failed, task[task] belong bucketname[bucket] or objectname[other] invalid.");
}

TEST_F(ObjectStorageManagerTasks, CheckLooksAtTheLowestPartsNames) {
  MakeTask("task", 5);
  ObjectTaskInfo lower = Part("task", 3);
  lower.object_name = "lower";
  ASSERT_TRUE(manager_.InsertObjectTask(lower));
  EXPECT_EQ(manager_.CheckTaskInfoExist(lower), 0);
  EXPECT_EQ(manager_.CheckTaskInfoExist(Part("task", 5)), 1);
}

// No call of the catalogue leaves a task without a part; should there be one all the same, it is told from a missing
// one.
TEST_F(ObjectStorageManagerTasks, TellATaskWithoutPartsFromAMissingOne) {
  TasksOf(manager_)["empty"];
  TaskPartSet parts;
  EXPECT_FALSE(manager_.GetAllTask("empty", parts));
  ExpectLine(5, "CObjectStorageManager::GetAllTask", "[%s]GetTaskInfo failed, task[%s] list empty.[%s(%d)]",
             "GetTaskInfo failed, task[empty] list empty.");
  log_->Clear();
  ObjectTaskInfo part;
  EXPECT_FALSE(manager_.GetTaskInfo("empty", 1, part));
  ExpectLine(5, "CObjectStorageManager::GetTaskInfo", "[%s]GetTaskInfo failed, task[%s] list empty.[%s(%d)]",
             "GetTaskInfo failed, task[empty] list empty.");
  EXPECT_EQ(manager_.CheckTaskInfoExist(Part("empty", 1)), 1);
  ExpectLine(5, "CObjectStorageManager::CheckTaskInfoExist",
             "[%s]CheckTaskInfoExist failed, task[%s] list empty.[%s(%d)]",
             "CheckTaskInfoExist failed, task[empty] list empty.");
  std::map<std::string, std::string> times;
  EXPECT_TRUE(manager_.GetTaskUpdateTime(times));
  EXPECT_TRUE(times.empty());
  EXPECT_TRUE(manager_.RemoveObjectTask("empty"));
}

TEST_F(ObjectStorageManagerTasks, RemovesATask) {
  MakeTask("task");
  ObjectTaskInfo part = Part("task", 2);
  ASSERT_TRUE(manager_.InsertObjectTask(part));
  StartOver();
  EXPECT_TRUE(manager_.RemoveObjectTask("task"));
  EXPECT_EQ(database_.Statements(), Texts{"DELETE FROM platform.local_object_task WHERE task_id = 'task' "});
  EXPECT_EQ(Rows("id"), Texts{});
  EXPECT_FALSE(manager_.RemoveObjectTask("task"));
  ExpectLine(5, "CObjectStorageManager::RemoveObjectTask", "[%s]RemoveObjectTask failed, task[%s] not exist.[%s(%d)]",
             "RemoveObjectTask failed, task[task] not exist.");
}

TEST_F(ObjectStorageManagerTasks, RemovesNoTaskThatTheDatabaseRefuses) {
  MakeTask("task");
  database_.FailStatementsWith("DELETE");
  EXPECT_FALSE(manager_.RemoveObjectTask("task"));
  ExpectLine(5, "CObjectStorageManager::RemoveObjectTask", "[%s]RemoveObjectTask failed, db operate failed.[%s(%d)]",
             "RemoveObjectTask failed, db operate failed.");
  ObjectTaskInfo part;
  EXPECT_TRUE(manager_.GetTaskInfo("task", 1, part));
}

TEST_F(ObjectStorageManagerTasks, TellTheTimeOfTheLowestPart) {
  MakeTask("task-1", 4);
  ObjectTaskInfo lower = Part("task-1", 3);
  ASSERT_TRUE(manager_.InsertObjectTask(lower));
  MakeTask("task-2", 1);
  std::map<std::string, std::string> times = {{"kept", "as it was"}, {"task-2", "as it was"}};
  EXPECT_TRUE(manager_.GetTaskUpdateTime(times));
  EXPECT_EQ(times, (std::map<std::string, std::string>{
                       {"kept", "as it was"}, {"task-1", "2026-11-03 08:00:03"}, {"task-2", "as it was"}}));
}

// Tasks that are swept away leave their part sizes behind, and may be a hundred thousand in a year.
TEST_F(ObjectStorageManagerTasks, ForgetThePartSizesOfTasksThatEndedLongAgo) {
  constexpr int kTasks = 5000;
  const auto first_part = [this](const std::string& task_id) {
    std::uint32_t part_size = 0;
    EXPECT_TRUE(manager_.CheckPartSize(task_id, 1, 100, part_size));
  };
  MakeTask("living");
  first_part("living");
  PartSizeInfo info;
  for (int i = 0; i < kTasks; ++i) {
    const std::string task_id = "ended-" + std::to_string(i);
    MakeTask(task_id);
    first_part(task_id);
    ASSERT_TRUE(manager_.RemoveObjectTask(task_id));
    ASSERT_TRUE(manager_.GetFirstPartInfo(task_id, info)) << "a late part finds it for a while";
  }
  int left = 0;
  for (int i = 0; i < kTasks; ++i) {
    left += manager_.RemovePartSizeInfo("ended-" + std::to_string(i)) ? 1 : 0;
  }
  EXPECT_GT(left, 0);
  EXPECT_LE(left, 1100);
  EXPECT_TRUE(manager_.RemovePartSizeInfo("living"));
}

TEST_F(ObjectStorageManagerTasks, TakePartsFromManyThreadsAtOnce) {
  MakeTask("task");
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&, i] {
      for (std::uint32_t part_num = 1; part_num <= 8; ++part_num) {
        ObjectTaskInfo part = Part("task", part_num);
        part.url = "by " + std::to_string(i);
        failures += manager_.InsertObjectTask(part) ? 0 : 1;
        failures += manager_.CheckTaskInfoExist(part) == 0 ? 0 : 1;
        TaskPartSet parts;
        failures += manager_.GetAllTask("task", parts) ? 0 : 1;
        std::map<std::string, std::string> times;
        manager_.GetTaskUpdateTime(times);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 0);
  TaskPartSet parts;
  ASSERT_TRUE(manager_.GetAllTask("task", parts));
  Texts in_memory;
  for (const ObjectTaskInfo& part : parts) {
    in_memory.push_back(part.url);
  }
  EXPECT_EQ(in_memory, Rows("url"));
  EXPECT_EQ(in_memory.size(), 8U);
}

// While a row of a task is being written, others look at the task and see it as it was.
TEST_F(ObjectStorageManagerTasks, LookUpsDoNotWaitForTheDatabase) {
  MakeTask("task");
  ObjectTaskInfo second = Part("task", 2);
  ObjectTaskInfo second_again = second;
  second_again.size = 7;
  struct Change {
    std::string statement;
    std::function<bool()> work;
    int part_2_meanwhile;
  };
  const Change changes[] = {
      {"INSERT", [&] { return manager_.InsertObjectTask(second); }, 2},
      {"UPDATE", [&] { return manager_.InsertObjectTask(second_again); }, 0},
      {"DELETE", [&] { return manager_.RemoveObjectTask("task"); }, 3},
  };
  for (const Change& change : changes) {
    std::atomic<bool> started{false};
    std::promise<void> writing;
    std::promise<void> looked;
    std::future<void> was_looked_at = looked.get_future();
    std::atomic<bool> waited_in_vain{false};
    database_.SetHook([&](const std::string& sql) {
      if (sql.starts_with(change.statement) && !started.exchange(true)) {
        writing.set_value();
        waited_in_vain = was_looked_at.wait_for(std::chrono::seconds(20)) != std::future_status::ready;
      }
    });
    std::thread writer([&] { EXPECT_TRUE(change.work()) << change.statement; });
    writing.get_future().wait();
    EXPECT_EQ(manager_.CheckTaskInfoExist(Part("task", 2)), change.part_2_meanwhile) << change.statement;
    ObjectTaskInfo part;
    EXPECT_TRUE(manager_.GetTaskInfo("task", 1, part));
    TaskPartSet parts;
    EXPECT_TRUE(manager_.GetAllTask("task", parts));
    std::int64_t age = 0;
    EXPECT_TRUE(manager_.GetTaskAge("task", age));
    looked.set_value();
    writer.join();
    database_.SetHook(nullptr);
    EXPECT_FALSE(waited_in_vain) << "the look-ups waited for " << change.statement;
  }
  EXPECT_EQ(manager_.CheckTaskInfoExist(Part("task", 1)), 1);
}

// Parts of one task at once, and its end: rows and memory agree.
TEST_F(ObjectStorageManagerTasks, PartsBesideTheEndOfTheirTask) {
  for (int round = 0; round < 30; ++round) {
    MakeTask("task");
    std::vector<std::thread> threads;
    for (std::uint32_t number = 2; number <= 4; ++number) {
      threads.emplace_back([this, number] {
        ObjectTaskInfo part = Part("task", number);
        manager_.InsertObjectTask(part);
      });
    }
    threads.emplace_back([this] { EXPECT_TRUE(manager_.RemoveObjectTask("task")); });
    for (std::thread& thread : threads) {
      thread.join();
    }
    ASSERT_EQ(database_.Column("SELECT * FROM platform.local_object_task", "id").size(), 0U)
        << "a row of a task that is gone";
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage
