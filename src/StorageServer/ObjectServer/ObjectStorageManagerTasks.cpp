// The catalogue's multipart upload tasks.
#include <optional>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// The results of CheckTaskInfoExist.
constexpr int kPartMatches = 0;
constexpr int kNoSuchTask = 1;
constexpr int kNoSuchPart = 2;
constexpr int kOtherSize = 3;

// Gives the parts of a task. When it is missing or has none, the result is null and a line is logged for `caller`.
const TaskPartSet* FindParts(const std::map<std::string, TaskPartSet>& tasks, const std::string& task_id,
                             const Caller& caller) {
  const auto entry = tasks.find(task_id);
  if (entry == tasks.end()) {
    // Fixed: docs/compatibility.md, "Log texts".
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]GetTaskInfo failed, task[%s] not exist.[%s(%d)]", task_id.c_str());
    return nullptr;
  }
  if (entry->second.empty()) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]GetTaskInfo failed, task[%s] list empty.[%s(%d)]", task_id.c_str());
    return nullptr;
  }
  return &entry->second;
}

}  // namespace
}  // namespace details

bool CObjectStorageManager::AddObjectTask(ObjectTaskInfo& task) {
  // The map's entry is made before the row: once the row is there, lack of memory must not keep memory and database
  // from agreeing.
  std::map<std::string, TaskPartSet> added;
  added[task.task_id].insert(task);
  std::map<std::string, std::int64_t> birth = {{task.task_id, TansyBase::TimeUtil::Uptime()}};
  {
    // This lock keeps the bucket's name as it is until the row is written.
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
    auto part = added.begin()->second.extract(added.begin()->second.begin());
    part.value().id = task.id;
    added.begin()->second.insert(std::move(part));
    tasks_.insert(added.extract(added.begin()));
    task_births_.insert(birth.extract(birth.begin()));
  }
  DropPartSizesOfEndedTasks();
  return true;
}

bool CObjectStorageManager::InsertObjectTask(ObjectTaskInfo& task) {
  const auto name_lock = object_locks_.Lock(task.bucket_name, task.object_name);
  const auto task_lock = task_locks_.Lock({}, task.task_id);
  const std::optional<std::uint32_t> found_id = FindPartId(task);
  if (!found_id) {
    CLOUD_LOG(logging::kError, "[%s]InsertObjectTask failed, task[%s] not exist.[%s(%d)]", task.task_id.c_str());
    return false;
  }
  // The set's entry is made before the row: once the row is there, lack of memory must not keep memory and database
  // from agreeing.
  TaskPartSet written = {task};
  ObjectTaskInfo row = task;
  if (*found_id != kNoRow) {
    row.id = *found_id;
    if (!CObjectServerSession::UpdateObjectTask(row)) {
      CLOUD_LOG(logging::kError, "[%s]InsertObjectTask failed, update db operate failed.[%s(%d)]");
      return false;
    }
  } else {
    row.bucket_name = RowName(task.bucket_name);
    if (!CObjectServerSession::InsertObjectTask(row)) {
      CLOUD_LOG(logging::kError, "[%s]InsertObjectTask failed, insert db operate failed.[%s(%d)]");
      return false;
    }
  }
  task.id = row.id;
  auto part = written.extract(written.begin());
  part.value().id = row.id;
  PublishPart(std::move(part));
  return true;
}

// Gives the id of the row of this part; kNoRow when the part is new, nothing when there is no such task. The age of a
// task that had none gets its entry, so that it can be set without memory later.
std::optional<std::uint32_t> CObjectStorageManager::FindPartId(const ObjectTaskInfo& part) {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  const auto entry = tasks_.find(part.task_id);
  if (entry == tasks_.end()) {
    return std::nullopt;
  }
  task_births_.try_emplace(part.task_id, TansyBase::TimeUtil::Uptime());
  const auto found = entry->second.find(part.part_num);
  return found != entry->second.end() ? found->id : kNoRow;
}

// Lets look-ups find a part whose row is written. The task's lock keeps the task.
void CObjectStorageManager::PublishPart(TaskPartSet::node_type part) noexcept {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  const auto entry = tasks_.find(part.value().task_id);
  if (entry == tasks_.end()) {
    return;
  }
  TaskPartSet& parts = entry->second;
  const TaskPartSet::node_type replaced = parts.extract(part.value());
  const auto placed = parts.insert(std::move(part)).position;
  if (placed == parts.begin()) {
    task_births_.find(placed->task_id)->second = TansyBase::TimeUtil::Uptime();
  }
}

bool CObjectStorageManager::GetAllTask(const std::string& task_id, TaskPartSet& parts) {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  const TaskPartSet* found_parts = details::FindParts(tasks_, task_id, CLOUD_LOG_CALLER);
  if (found_parts == nullptr) {
    return false;
  }
  parts = *found_parts;
  return true;
}

bool CObjectStorageManager::GetTaskInfo(const std::string& task_id, std::uint32_t part_num, ObjectTaskInfo& part) {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  const TaskPartSet* found_parts = details::FindParts(tasks_, task_id, CLOUD_LOG_CALLER);
  if (found_parts == nullptr) {
    return false;
  }
  const auto found = found_parts->find(part_num);
  if (found == found_parts->end()) {
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
  const auto task_lock = task_locks_.Lock({}, task_id);
  if (!IsTaskThere(task_id)) {
    CLOUD_LOG(logging::kError, "[%s]RemoveObjectTask failed, task[%s] not exist.[%s(%d)]", task_id.c_str());
    return false;
  }
  if (!CObjectServerSession::DeleteObjectTask(task_id)) {
    CLOUD_LOG(logging::kError, "[%s]RemoveObjectTask failed, db operate failed.[%s(%d)]");
    return false;
  }
  EndTask(task_id);
  return true;
}

bool CObjectStorageManager::IsTaskThere(const std::string& task_id) {
  const std::lock_guard<std::mutex> lock(task_mutex_);
  return tasks_.contains(task_id);
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
