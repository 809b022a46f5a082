#include "StorageServer/ObjectServer/CleanExpiredTaskThread.h"

#include <ctime>
#include <map>
#include <string>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::time_t kSecondsPerHour = 3600;
constexpr std::time_t kHoursPerDay = 24;
constexpr std::time_t kExpirySeconds = 259200;  // three days

std::time_t UtcHour(std::time_t time) {
  return time / kSecondsPerHour % kHoursPerDay;
}

bool IsExpired(const std::string& task_id, const std::string& update_time, std::time_t now) {
  if (update_time.empty()) {
    return false;
  }
  const std::time_t updated = TansyBase::TimeUtil::StrUTCDatetime2TimeT(update_time);
  if (updated < 0) {
    // An unreadable time says nothing about the task's age; nobody's upload is to be lost over it.
    CLOUD_LOG(logging::kError, "[%s]task[%s] update time[%s] invalid.[%s(%d)]", task_id.c_str(), update_time.c_str());
    return false;
  }
  return now - updated > kExpirySeconds;
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
  const std::time_t now = TansyBase::TimeUtil::Now();
  if (has_run_ && details::UtcHour(now) != 0) {
    return;
  }
  has_run_ = true;
  auto& manager = CObjectStorageManager::Instance();
  std::map<std::string, std::string> times;
  manager.GetTaskUpdateTime(times);
  for (const auto& [task_id, update_time] : times) {
    if (details::IsExpired(task_id, update_time, now)) {
      manager.RemoveObjectTask(task_id);
    }
  }
}

}  // namespace Tansy::CloudStorage
