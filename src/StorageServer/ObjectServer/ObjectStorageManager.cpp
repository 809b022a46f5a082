#include "StorageServer/ObjectServer/ObjectStorageManager.h"

#include <utility>
#include <vector>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"

namespace Tansy::CloudStorage {

CObjectStorageManager& CObjectStorageManager::Instance() {
  return CSingleton<CObjectStorageManager>::Instance();
}

bool CObjectStorageManager::Init() {
  loaded_ = Load();
  return loaded_;
}

bool CObjectStorageManager::Load() {
  if (!LoadBuckets()) {
    CLOUD_LOG(logging::kError, "[%s]Init failed, query bucket failed.[%s(%d)]");
    return false;
  }
  if (!LoadObjects()) {
    CLOUD_LOG(logging::kError, "[%s]Init failed, query bucket failed.[%s(%d)]");
    return false;
  }
  if (!LoadTasks()) {
    CLOUD_LOG(logging::kError, "[%s]Init failed, query object task failed.[%s(%d)]");
    return false;
  }
  return true;
}

bool CObjectStorageManager::LoadBuckets() {
  const std::lock_guard<std::mutex> lock(bucket_mutex_);
  return CObjectServerSession::QueryBucket(buckets_);
}

bool CObjectStorageManager::LoadObjects() {
  std::vector<std::string> names;
  {
    const std::lock_guard<std::mutex> lock(bucket_mutex_);
    names.reserve(buckets_.size());
    for (const auto& [name, bucket] : buckets_) {
      names.push_back(name);
    }
  }
  const std::lock_guard<std::mutex> lock(object_mutex_);
  for (const std::string& name : names) {
    ObjectSet objects;
    if (!CObjectServerSession::QueryObject(objects, name)) {
      return false;
    }
    objects_.emplace(name, std::move(objects));
  }
  return true;
}

bool CObjectStorageManager::LoadTasks() {
  std::vector<ObjectTaskInfo> rows;
  if (!CObjectServerSession::GetAllObjectTask(rows)) {
    return false;
  }
  const std::lock_guard<std::mutex> lock(task_mutex_);
  for (ObjectTaskInfo& row : rows) {
    TaskPartSet& parts = tasks_[row.task_id];
    parts.insert(std::move(row));
  }
  return true;
}

}  // namespace Tansy::CloudStorage
