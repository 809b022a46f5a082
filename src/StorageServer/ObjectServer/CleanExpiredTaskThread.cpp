#include "StorageServer/ObjectServer/CleanExpiredTaskThread.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/PartUploads.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::time_t kSecondsPerHour = 3600;
constexpr std::time_t kHoursPerDay = 24;
constexpr std::int64_t kExpirySeconds = 259200;  // three days

std::time_t UtcHour(std::time_t time) {
  return time / kSecondsPerHour % kHoursPerDay;
}

bool IsExpired(const std::string& task_id) {
  std::int64_t age = 0;
  return CObjectStorageManager::Instance().GetTaskAge(task_id, age) && age > kExpirySeconds;
}

// Skips a task that somebody works on at this moment, however old it is: a part or a completion that has found its task
// may go on to the end.
bool SweepTask(const std::string& task_id) {
  auto& manager = CObjectStorageManager::Instance();
  std::shared_ptr<std::mutex> task_mutex;
  if (!IsExpired(task_id) || !manager.GetPartFileMutex(task_id, task_mutex)) {
    return false;
  }
  const std::unique_lock<std::mutex> lock(*task_mutex, std::try_to_lock);
  return lock && IsExpired(task_id) && manager.RemoveObjectTask(task_id);
}

}  // namespace
}  // namespace details

CCleanExpiredTaskThread& CCleanExpiredTaskThread::Instance() {
  return CSingleton<CCleanExpiredTaskThread>::Instance();
}

CCleanExpiredTaskThread::~CCleanExpiredTaskThread() {
  Stop();
}

void CCleanExpiredTaskThread::OnTimer() {
  const bool is_time = details::UtcHour(TansyBase::TimeUtil::Now()) == 0;
  if (is_time || !has_run_) {
    has_run_ = true;
    SweepTasks();
  }
  if ((is_time || !has_run_for_uploads_) && !IsStopping()) {
    has_run_for_uploads_ = CPartUploadSweep::Instance().Run();
  }
}

void CCleanExpiredTaskThread::SweepTasks() {
  std::map<std::string, std::string> times;
  CObjectStorageManager::Instance().GetTaskUpdateTime(times);
  for (const auto& [task_id, update_time] : times) {
    if (IsStopping()) {
      return;
    }
    swept_tasks_ += details::SweepTask(task_id) ? 1 : 0;
  }
  ++sweeps_;
}

}  // namespace Tansy::CloudStorage
