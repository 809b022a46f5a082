#include "StorageServer/ObjectServer/ObjectStorageManager.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/ObjectServer/ObjectTableLoader.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

CObjectStorageManager& CObjectStorageManager::Instance() {
  return CSingleton<CObjectStorageManager>::Instance();
}

bool CObjectStorageManager::Init() {
  loaded_ = false;
  if (shared_) {
    loaded_ = StartFollowing();
    return loaded_;
  }
  if (!LoadBuckets()) {
    CLOUD_LOG(logging::kError, "[%s]Init failed, query bucket failed.[%s(%d)]");
    return false;
  }
  if (!LoadObjects()) {
    // Fixed: docs/compatibility.md, "Log texts".
    CLOUD_LOG(logging::kError, "[%s]Init failed, query bucket failed.[%s(%d)]");
    return false;
  }
  if (!LoadTasks()) {
    CLOUD_LOG(logging::kError, "[%s]Init failed, query object task failed.[%s(%d)]");
    return false;
  }
  RecoverPartSizes();
  loaded_ = true;
  return true;
}

bool CObjectStorageManager::LoadBuckets() {
  std::map<std::string, BucketInfo> rows;
  if (!CObjectServerSession::QueryBucket(rows)) {
    return false;
  }
  const std::lock_guard<std::shared_mutex> lock(bucket_mutex_);
  for (auto& [name, bucket] : rows) {
    buckets_.try_emplace(name, Bucket{std::move(bucket), nullptr});
  }
  return true;
}

bool CObjectStorageManager::LoadTable(CObjectTable& objects, const std::string& bucket_name) {
  CObjectTableLoader loader(objects);
  const auto take = [&loader](const ObjectInfo& object) { loader.Add(CPackedObject::Make(object)); };
  return CObjectServerSession::QueryObject(take, bucket_name);
}

bool CObjectStorageManager::LoadObjects() {
  std::vector<std::string> names;
  {
    const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
    names.reserve(buckets_.size());
    for (const auto& [name, bucket] : buckets_) {
      names.push_back(name);
    }
  }
  for (const std::string& name : names) {
    auto objects = std::make_unique<CObjectTable>();
    if (!LoadTable(*objects, name)) {
      return false;
    }
    const std::lock_guard<std::shared_mutex> lock(bucket_mutex_);
    const auto bucket = buckets_.find(name);
    if (bucket != buckets_.end() && !bucket->second.objects) {
      bucket->second.objects = std::move(objects);
    }
  }
  return true;
}

bool CObjectStorageManager::LoadTasks() {
  std::vector<ObjectTaskInfo> rows;
  std::time_t now = 0;
  if (!CObjectServerSession::GetAllObjectTask(rows, node_) || !GetTimeOfRows(now)) {
    return false;
  }
  const std::lock_guard<std::mutex> lock(task_mutex_);
  for (ObjectTaskInfo& row : rows) {
    TaskPartSet& parts = tasks_[row.task_id];
    parts.insert(std::move(row));
  }
  LoadAges(now);
  return true;
}

// The time of day counts only here: from now on, no task becomes older or younger when somebody sets the clock.
void CObjectStorageManager::LoadAges(std::time_t now) {
  const std::int64_t uptime = TansyBase::TimeUtil::Uptime();
  for (const auto& [task_id, parts] : tasks_) {
    const std::string& written = parts.begin()->update_time;
    if (written.empty() || task_births_.contains(task_id)) {
      continue;
    }
    const std::time_t time = TansyBase::TimeUtil::StrUTCDatetime2TimeT(written);
    if (time < 0) {
      // An unreadable time says nothing about the task's age, and no upload may be lost because of it.
      CLOUD_LOG(logging::kError, "[%s]task[%s] update time[%s] invalid.[%s(%d)]", task_id.c_str(), written.c_str());
      continue;
    }
    task_births_.emplace(task_id, uptime - std::max<std::int64_t>(now - time, 0));
  }
}

}  // namespace Tansy::CloudStorage
