// The catalogue's buckets.
#include <algorithm>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

using BucketMap = std::map<std::string, BucketInfo>;

BucketMap::iterator FindBucketById(BucketMap& buckets, std::uint32_t id) {
  return std::find_if(buckets.begin(), buckets.end(), [id](const auto& entry) { return entry.second.id == id; });
}

}  // namespace
}  // namespace details

bool CObjectStorageManager::IsBucketExist(const std::string& name) {
  const std::lock_guard<std::mutex> lock(bucket_mutex_);
  return buckets_.contains(name);
}

bool CObjectStorageManager::AddBucket(BucketInfo& bucket) {
  const auto name_lock = bucket_locks_.Lock({}, bucket.name);
  if (IsBucketExist(bucket.name)) {
    CLOUD_LOG(logging::kError, "[%s]Add bucket[%s] failed, bucket already exist.[%s(%d)]", bucket.name.c_str());
    return false;
  }
  if (!CObjectServerSession::CreateBucket(bucket)) {
    CLOUD_LOG(logging::kError, "[%s]Add bucket[%s] failed, db operation failed.[%s(%d)]", bucket.name.c_str());
    return false;
  }
  const std::lock_guard<std::mutex> lock(bucket_mutex_);
  buckets_.emplace(bucket.name, bucket);
  return true;
}

bool CObjectStorageManager::ModifyBucket(const BucketInfo& bucket) {
  const auto all_names_lock = bucket_locks_.LockAll();
  if (!CObjectServerSession::ModifyBucket(bucket)) {
    CLOUD_LOG(logging::kError, "[%s]Modify bucket[%s] failed, db operation failed.[%s(%d)]", bucket.name.c_str());
    return false;
  }
  const std::lock_guard<std::mutex> lock(bucket_mutex_);
  const auto found = details::FindBucketById(buckets_, bucket.id);
  if (found == buckets_.end()) {
    CLOUD_LOG(logging::kError, "[%s]Modify bucket[%s] failed, bucket not exist.[%s(%d)]", bucket.name.c_str());
    return false;
  }
  // The key stays: objects are filed under it, so a renamed bucket goes by its old name until the next start.
  BucketInfo& stored = found->second;
  stored.name = bucket.name;
  stored.reserve = bucket.reserve;
  stored.location = bucket.location;
  stored.cycle = bucket.cycle;
  stored.size = bucket.size;
  return true;
}

bool CObjectStorageManager::RemoveBucket(std::uint32_t id) {
  const auto all_names_lock = bucket_locks_.LockAll();
  if (!CObjectServerSession::DeleteBucket(id)) {
    CLOUD_LOG(logging::kError, "[%s]remove bucket[%d] failed, db operation failed.[%s(%d)]", static_cast<int>(id));
    return false;
  }
  if (!RemoveObjectByBucket(id)) {
    CLOUD_LOG(logging::kDatabase, "[%s]remove bucket[%d], remove object failed.[%s(%d)]", static_cast<int>(id));
  }
  const std::lock_guard<std::mutex> lock(bucket_mutex_);
  if (const auto found = details::FindBucketById(buckets_, id); found != buckets_.end()) {
    buckets_.erase(found);
  }
  return true;
}

bool CObjectStorageManager::RemoveBucket(const std::set<std::uint32_t>& ids) {
  const auto all_names_lock = bucket_locks_.LockAll();
  if (!CObjectServerSession::DeleteBuckets(ids)) {
    CLOUD_LOG(logging::kError, "[%s]remove buckets failed, db operation failed.[%s(%d)]");
    return false;
  }
  for (const std::uint32_t id : ids) {
    if (!RemoveObjectByBucket(id)) {
      CLOUD_LOG(logging::kDatabase, "[%s]remove bucket[%d], remove object failed.[%s(%d)]", static_cast<int>(id));
    }
  }
  const std::lock_guard<std::mutex> lock(bucket_mutex_);
  std::erase_if(buckets_, [&ids](const auto& entry) { return ids.contains(entry.second.id); });
  return true;
}

bool CObjectStorageManager::GetBucketByName(BucketInfo& bucket, const std::string& name) {
  const std::lock_guard<std::mutex> lock(bucket_mutex_);
  const auto found = buckets_.find(name);
  if (found == buckets_.end()) {
    return false;
  }
  bucket = found->second;
  return true;
}

bool CObjectStorageManager::GetBucketList(std::map<std::string, BucketInfo>& buckets) {
  const std::lock_guard<std::mutex> lock(bucket_mutex_);
  buckets = buckets_;
  return true;
}

bool CObjectStorageManager::RemoveObjectByBucket(std::uint32_t bucket_id) {
  // An upload into the bucket comes wholly before this or wholly after it.
  const auto all_objects_lock = object_locks_.LockAll();
  std::string name;
  {
    const std::lock_guard<std::mutex> lock(bucket_mutex_);
    const auto found = details::FindBucketById(buckets_, bucket_id);
    if (found == buckets_.end()) {
      CLOUD_LOG(logging::kNotable, "[%s]remove object by bucket, bucket[%s] not exist.[%s(%d)]",
                std::to_string(bucket_id).c_str());
      return true;
    }
    // The name that the objects are filed under. After a rename the record's own name may be another bucket's.
    name = found->first;
  }
  if (!CObjectServerSession::DeleteObjectByBucket(name)) {
    CLOUD_LOG(logging::kNotable, "[%s]remove object by bucket[%s], db operate failed.[%s(%d)]", name.c_str());
    return false;
  }
  const std::lock_guard<std::mutex> lock(object_mutex_);
  objects_.erase(name);
  return true;
}

}  // namespace Tansy::CloudStorage
