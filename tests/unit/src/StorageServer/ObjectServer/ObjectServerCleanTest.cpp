// The sweep of expired multipart tasks.
#include <gmock/gmock.h>

#include <chrono>
#include <thread>

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
  std::string NewTask(const std::string& update_time) {
    static int next = 1;
    ObjectTaskInfo task;
    task.task_id = "clean-" + std::to_string(next++);
    task.bucket_name = "b";
    task.object_name = "k";
    task.part_num = 1;
    task.update_time = update_time;
    EXPECT_TRUE(catalogue_.AddObjectTask(task));
    return task.task_id;
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
  Database().FailStatementsWith("local_object_task");
  CCleanExpiredTaskThread cleaner;
  cleaner.OnTimer();
  EXPECT_TRUE(IsThere(old));
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
