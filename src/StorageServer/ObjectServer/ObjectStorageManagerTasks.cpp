// The catalogue's multipart upload tasks.
#include <iterator>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// What CheckTaskInfoExist finds out.
constexpr int kPartMatches = 0;
constexpr int kNoSuchTask = 1;
constexpr int kNoSuchPart = 2;
constexpr int kOtherSize = 3;

}  // namespace
}  // namespace details

bool CObjectStorageManager::AddObjectTask(ObjectTaskInfo& task) {
  {
    // The bucket's name stays what it is until the row is written.
    const auto name_lock = object_locks_.Lock(task.bucket_name, task.object_name);
    ObjectTaskInfo row = task;
    row.bucket_name = RowName(task.bucket_name);
    if (!CObjectServerSession::InsertObjectTask(row)) {
      CLOUD_LOG(logging::kError, "[%s]AddObjectTask failed, db operate failed.[%s(%d)]");
      return false;
    }
    task.id = row.id;
  }
  {
    const std::lock_guard<std::mutex> lock(task_mutex_);
    if (tasks_.contains(task.task_id)) {
      CLOUD_LOG(logging::kError, "[%s]AddObjectTask failed, task[%s] already exist.[%s(%d)]", task.task_id.c_str());
      return false;
    }
    tasks_.emplace(task.task_id, TaskPartSet{task});
    task_births_[task.task_id] = TansyBase::TimeUtil::Uptime();
  }
  DropPartSizesOfEndedTasks();
  return true;
}

bool CObjectStorageManager::InsertObjectTask(ObjectTaskInfo& task) {
  const auto name_lock = object_locks_.Lock(task.bucket_name, task.object_name);
  const std::string row_name = RowName(task.bucket_name);
  const std::lock_guard<std::mutex> lock(task_mutex_);
  const auto entry = tasks_.find(task.task_id);
  if (entry == tasks_.end()) {
    CLOUD_LOG(logging::kError, "[%s]InsertObjectTask failed, task[%s] not exist.[%s(%d)]", task.task_id.c_str());
    return false;
  }
  TaskPartSet& parts = entry->second;
  const auto found = parts.find(task.part_num);
  const std::int64_t now = TansyBase::TimeUtil::Uptime();
  if (found == parts.end()) {
    ObjectTaskInfo row = task;
    row.bucket_name = row_name;
    if (!CObjectServerSession::InsertObjectTask(row)) {
      CLOUD_LOG(logging::kError, "[%s]InsertObjectTask failed, insert db operate failed.[%s(%d)]");
      return false;
    }
    task.id = row.id;
    if (parts.insert(task).first == parts.begin()) {
      task_births_[task.task_id] = now;
    }
    return true;
  }
  task.id = found->id;
  ObjectTaskInfo replacement = task;
  if (!CObjectServerSession::UpdateObjectTask(task)) {
    CLOUD_LOG(logging::kError, "[%s]InsertObjectTask failed, update db operate failed.[%s(%d)]");
    return false;
  }
  if (found == parts.begin()) {
    task_births_[task.task_id] = now;
  }
  const auto next = std::next(found);
  auto node = parts.extract(found);
  node.value() = std::move(replacement);
  parts.insert(next, std::move(node));
  return true;
}

bool CObjectStorageManager::GetAllTask(const std::string& task_id, TaskPartSet& parts) {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  const auto entry = tasks_.find(task_id);
  if (entry == tasks_.end()) {
    // Fixed: docs/compatibility.md, "Log texts".
    CLOUD_LOG(logging::kError, "[%s]GetTaskInfo failed, task[%s] not exist.[%s(%d)]", task_id.c_str());
    return false;
  }
  if (entry->second.empty()) {
    CLOUD_LOG(logging::kError, "[%s]GetTaskInfo failed, task[%s] list empty.[%s(%d)]", task_id.c_str());
    return false;
  }
  parts = entry->second;
  return true;
}

bool CObjectStorageManager::GetTaskInfo(const std::string& task_id, std::uint32_t part_num, ObjectTaskInfo& part) {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  const auto entry = tasks_.find(task_id);
  if (entry == tasks_.end()) {
    CLOUD_LOG(logging::kError, "[%s]GetTaskInfo failed, task[%s] not exist.[%s(%d)]", task_id.c_str());
    return false;
  }
  if (entry->second.empty()) {
    CLOUD_LOG(logging::kError, "[%s]GetTaskInfo failed, task[%s] list empty.[%s(%d)]", task_id.c_str());
    return false;
  }
  const auto found = entry->second.find(part_num);
  if (found == entry->second.end()) {
    CLOUD_LOG(logging::kError, "[%s]GetTaskInfo failed, task[%s] part[%d] not exist.[%s(%d)]", task_id.c_str(),
              static_cast<int>(part_num));
    return false;
  }
  part = *found;
  return true;
}

int CObjectStorageManager::CheckTaskInfoExist(const ObjectTaskInfo& task) {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  const auto entry = tasks_.find(task.task_id);
  if (entry == tasks_.end()) {
    CLOUD_LOG(logging::kError, "[%s]CheckTaskInfoExist failed, task[%s] not exist.[%s(%d)]", task.task_id.c_str());
    return details::kNoSuchTask;
  }
  const TaskPartSet& parts = entry->second;
  if (parts.empty()) {
    CLOUD_LOG(logging::kError, "[%s]CheckTaskInfoExist failed, task[%s] list empty.[%s(%d)]", task.task_id.c_str());
    return details::kNoSuchTask;
  }
  const ObjectTaskInfo& lowest = *parts.begin();
  if (lowest.bucket_name != task.bucket_name || lowest.object_name != task.object_name) {
    CLOUD_LOG(logging::kError,
              "[%s]CheckTaskInfoExist failed, task[%s] belong bucketname[%s] or objectname[%s] invalid.[%s(%d)]",
              task.task_id.c_str(), task.bucket_name.c_str(), task.object_name.c_str());
    return details::kNoSuchTask;
  }
  const auto found = parts.find(task.part_num);
  if (found == parts.end()) {
    return details::kNoSuchPart;
  }
  return found->size == task.size ? details::kPartMatches : details::kOtherSize;
}

bool CObjectStorageManager::RemoveObjectTask(const std::string& task_id) {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  const auto entry = tasks_.find(task_id);
  if (entry == tasks_.end()) {
    CLOUD_LOG(logging::kError, "[%s]RemoveObjectTask failed, task[%s] not exist.[%s(%d)]", task_id.c_str());
    return false;
  }
  if (!CObjectServerSession::DeleteObjectTask(task_id)) {
    CLOUD_LOG(logging::kError, "[%s]RemoveObjectTask failed, db operate failed.[%s(%d)]");
    return false;
  }
  tasks_.erase(entry);
  task_births_.erase(task_id);
  return true;
}

// Forgets a task whose rows are gone; an empty id is no task.
void CObjectStorageManager::EndTask(const std::string& task_id) {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  tasks_.erase(task_id);
  task_births_.erase(task_id);
}

bool CObjectStorageManager::GetTaskAge(const std::string& task_id, std::int64_t& seconds) {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  const auto birth = task_births_.find(task_id);
  if (birth == task_births_.end()) {
    return false;
  }
  seconds = TansyBase::TimeUtil::Uptime() - birth->second;
  return true;
}

bool CObjectStorageManager::GetTaskUpdateTime(std::map<std::string, std::string>& times) {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  for (const auto& [task_id, parts] : tasks_) {
    if (!parts.empty()) {
      times.emplace(task_id, parts.begin()->update_time);
    }
  }
  return true;
}

}  // namespace Tansy::CloudStorage
