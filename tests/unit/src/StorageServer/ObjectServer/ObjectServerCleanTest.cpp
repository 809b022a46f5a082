// The sweep of expired multipart tasks.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "ObjectServerFixture.h"
#include "StorageServer/ObjectServer/CleanExpiredTaskThread.h"
#include "TansyBase/TimeUtil.h"
#include "fakes/ManualClock.h"

namespace Tansy::Tests {
namespace {

using CloudStorage::CCleanExpiredTaskThread;
using CloudStorage::ObjectTaskInfo;
using TansyBase::TimeUtil;

constexpr std::time_t kNoon = 1793707200 - 1793707200 % 86400 + 12 * 3600;
constexpr std::time_t kThreeDays = 259200;

class CObjectServerCleanTest : public CObjectServerTest {
 protected:
  // A task that the catalogue takes for one from before the start of the server.
  std::string NewTask(const std::string& update_time) {
    static int next = 1;
    const std::string number = std::to_string(next++);
    const std::string task_id = "clean-" + number;
    EXPECT_TRUE(Database().Run(
        "INSERT INTO platform.local_object_task (id, task_id, object_name, bucket_name, size, part_num, update_time, "
        "url) VALUES (" +
        std::to_string(1000000 + std::stoi(number)) + ", '" + task_id + "', 'k', 'b', 0, 1, '" + update_time +
        "', 'url')"));
    EXPECT_TRUE(catalogue_.Init());
    return task_id;
  }
  std::string TaskOfAge(std::time_t age) { return NewTask(TimeUtil::TimeT2StrUTCDatetime(clock_.Now() - age)); }
  bool IsThere(const std::string& task_id) {
    ObjectTaskInfo task;
    return catalogue_.GetTaskInfo(task_id, 1, task);
  }

  CManualClock clock_{kNoon};
};

TEST_F(CObjectServerCleanTest, TasksOlderThanThreeDaysLoseTheirRows) {
  const std::string old = TaskOfAge(kThreeDays + 1);
  const std::string edge = TaskOfAge(kThreeDays);
  const std::string fresh = TaskOfAge(0);
  const std::string future = TaskOfAge(-3600);
  CCleanExpiredTaskThread cleaner;
  cleaner.OnTimer();
  EXPECT_EQ(cleaner.Sweeps(), 1U);
  EXPECT_EQ(cleaner.SweptTasks(), 1U);
  EXPECT_FALSE(IsThere(old));
  EXPECT_TRUE(IsThere(edge));
  EXPECT_TRUE(IsThere(fresh));
  EXPECT_TRUE(IsThere(future));
  EXPECT_TRUE(Database()
                  .Column("SELECT task_id FROM platform.local_object_task WHERE task_id = '" + old + "'", "task_id")
                  .empty());
}

TEST_F(CObjectServerCleanTest, TheLowestPartTellsTheAge) {
  const std::string task_id = TaskOfAge(kThreeDays + 1);
  ObjectTaskInfo part;
  part.task_id = task_id;
  part.bucket_name = "b";
  part.object_name = "k";
  part.part_num = 2;
  part.update_time = TimeUtil::TimeT2StrUTCDatetime(clock_.Now());
  EXPECT_TRUE(catalogue_.InsertObjectTask(part));
  CCleanExpiredTaskThread cleaner;
  cleaner.OnTimer();
  EXPECT_FALSE(IsThere(task_id));
}

class CObjectServerCleanClockTest : public CObjectServerCleanTest {
 protected:
  // A task that is opened now.
  std::string OpenTask() {
    static int next = 1;
    ObjectTaskInfo task;
    task.task_id = "clean-open-" + std::to_string(next++);
    task.bucket_name = "b";
    task.object_name = "k";
    task.part_num = 1;
    task.update_time = TimeUtil::TimeT2StrUTCDatetime(clock_.Now());
    EXPECT_TRUE(catalogue_.AddObjectTask(task));
    return task.task_id;
  }
  static void Sweep() { CCleanExpiredTaskThread().OnTimer(); }
};

TEST_F(CObjectServerCleanClockTest, ATimeOfDayThatIsSetFreesNothingEarly) {
  const std::string loaded = TaskOfAge(kThreeDays - 3600);
  const std::string opened = OpenTask();
  clock_.Advance(60);
  for (const std::time_t step : {3600L, 86400L, 10 * kThreeDays, -10 * kThreeDays}) {
    clock_.Set(clock_.Now() + step);
    Sweep();
    EXPECT_TRUE(IsThere(loaded)) << step;
    EXPECT_TRUE(IsThere(opened)) << step;
  }
}

TEST_F(CObjectServerCleanClockTest, ATimeOfDayThatIsSetKeepsNothingForEver) {
  clock_.Set(kNoon + 100 * kThreeDays);
  const std::string from_the_future = OpenTask();
  clock_.Set(kNoon);
  const std::string loaded_from_the_future = TaskOfAge(-100 * kThreeDays);
  clock_.Advance(kThreeDays);
  Sweep();
  EXPECT_TRUE(IsThere(from_the_future));
  EXPECT_TRUE(IsThere(loaded_from_the_future));
  clock_.Advance(1);
  Sweep();
  EXPECT_FALSE(IsThere(from_the_future));
  EXPECT_FALSE(IsThere(loaded_from_the_future));
}

TEST_F(CObjectServerCleanClockTest, TheAgeOfALoadedTaskGoesOnFromWhatItWas) {
  const std::string task_id = TaskOfAge(kThreeDays - 100);
  clock_.Advance(100);
  Sweep();
  EXPECT_TRUE(IsThere(task_id));
  clock_.Advance(1);
  Sweep();
  EXPECT_FALSE(IsThere(task_id));
}

TEST_F(CObjectServerCleanClockTest, PartOneSentAgainMakesATaskYoung) {
  const std::string task_id = OpenTask();
  clock_.Advance(kThreeDays + 1);
  ObjectTaskInfo part;
  ASSERT_TRUE(catalogue_.GetTaskInfo(task_id, 1, part));
  ASSERT_TRUE(catalogue_.InsertObjectTask(part));
  Sweep();
  EXPECT_TRUE(IsThere(task_id));
}

// The sweep does not take a task away while a part or a completion of it is under way.
TEST_F(CObjectServerCleanClockTest, ATaskThatIsWorkedOnIsLeftAlone) {
  const std::string task_id = TaskOfAge(kThreeDays + 1);
  std::shared_ptr<std::mutex> task_mutex;
  ASSERT_TRUE(catalogue_.GetPartFileMutex(task_id, task_mutex));
  {
    const std::lock_guard<std::mutex> working(*task_mutex);
    std::thread(&CObjectServerCleanClockTest::Sweep).join();
    EXPECT_TRUE(IsThere(task_id));
  }
  Sweep();
  EXPECT_FALSE(IsThere(task_id));
}

TEST_F(CObjectServerCleanTest, AStopEndsTheSweepBetweenTwoTasks) {
  CCleanExpiredTaskThread::Instance().Stop();  // the server's own sweep would take the tasks of this one
  std::vector<std::string> old;
  for (int i = 0; i < 20; ++i) {
    old.push_back(TaskOfAge(kThreeDays + 1));
  }
  class CCleaner : public CCleanExpiredTaskThread {
   public:
    using CCleanExpiredTaskThread::IsStopping;
  };
  CCleaner cleaner;
  std::thread stopper;
  std::atomic<bool> swept{false};
  Database().SetHook([&](const std::string& sql) {
    if (sql.find("DELETE FROM platform.local_object_task") != std::string::npos && !swept) {
      stopper = std::thread([&cleaner] { cleaner.Stop(); });
      while (!cleaner.IsStopping()) {  // asked on the cleaner's own thread
        std::this_thread::yield();
      }
      swept = true;
    }
  });
  EXPECT_TRUE(cleaner.Start(3600000));
  while (!swept) {
    std::this_thread::yield();
  }
  cleaner.Stop();
  Database().SetHook(nullptr);
  stopper.join();
  EXPECT_GE(std::count_if(old.begin(), old.end(), [this](const std::string& task) { return IsThere(task); }), 19);
}

TEST_F(CObjectServerCleanTest, TimesThatAreMissingOrUnreadableCountAsFresh) {
  const std::string none = NewTask("");
  const std::string broken = NewTask("the day before yesterday");
  CCleanExpiredTaskThread cleaner;
  cleaner.OnTimer();
  EXPECT_TRUE(IsThere(none));
  EXPECT_TRUE(IsThere(broken));
}

TEST_F(CObjectServerCleanTest, RunsOnceAtStartAndThenInTheHourAfterMidnight) {
  CCleanExpiredTaskThread cleaner;
  cleaner.OnTimer();
  const std::string old = TaskOfAge(kThreeDays + 1);
  clock_.Set(kNoon + 11 * 3600 + 3599);  // 23:59:59
  cleaner.OnTimer();
  EXPECT_TRUE(IsThere(old));
  clock_.Set(kNoon + 12 * 3600);  // 00:00:00
  cleaner.OnTimer();
  EXPECT_FALSE(IsThere(old));

  const std::string other = TaskOfAge(kThreeDays + 1);
  clock_.Set(kNoon + 13 * 3600);  // 01:00:00
  cleaner.OnTimer();
  EXPECT_TRUE(IsThere(other));
  clock_.Set(kNoon + 36 * 3600 + 3599);  // 00:59:59
  cleaner.OnTimer();
  EXPECT_FALSE(IsThere(other));
}

TEST_F(CObjectServerCleanTest, AFailingDatabaseKeepsTheTask) {
  const std::string old = TaskOfAge(kThreeDays + 1);
  Database().FailStatementsWith("DELETE FROM platform.local_object_task");
  CCleanExpiredTaskThread().OnTimer();
  EXPECT_TRUE(IsThere(old));
  EXPECT_EQ(log_->Count("[%s]RemoveObjectTask failed, db operate failed.[%s(%d)]", logging::kError), 1u);
  Database().Heal();
  CCleanExpiredTaskThread().OnTimer();
  EXPECT_FALSE(IsThere(old)) << "the next sweep takes it";
}

TEST_F(CObjectServerCleanTest, TheThreadSweepsAtItsStart) {
  const std::string old = TaskOfAge(kThreeDays + 1);
  CCleanExpiredTaskThread cleaner;
  EXPECT_TRUE(cleaner.Start(3600000));
  for (int i = 0; i < 500 && IsThere(old); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_FALSE(IsThere(old));
}

TEST_F(CObjectServerCleanTest, TheServerStartsItsCleaner) {
  // It runs since the server's first start, so it cannot be started again.
  EXPECT_FALSE(CCleanExpiredTaskThread::Instance().Start(3600000));
}

}  // namespace
}  // namespace Tansy::Tests
