// The catalogue's buckets.
#include <algorithm>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "TansyBase/MessageLoop.h"

namespace Tansy::CloudStorage {

CObjectStorageManager::BucketMap::iterator CObjectStorageManager::FindBucketById(BucketMap& buckets, std::uint32_t id) {
  return std::find_if(buckets.begin(), buckets.end(), [id](const auto& entry) { return entry.second.info.id == id; });
}

// Whoever holds the mutex commits to the database, so a thread that waits for it is not working.
std::unique_lock<std::mutex> CObjectStorageManager::LockBucketChanges() {
  std::unique_lock<std::mutex> change(bucket_changes_, std::defer_lock);
  TansyBase::LockWhileBlocking(change);
  return change;
}

bool CObjectStorageManager::IsBucketExist(const std::string& name) {
  return HasBucket(name) || (CatchUp() && HasBucket(name));
}

bool CObjectStorageManager::HasBucket(const std::string& name) {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  return buckets_.contains(name);
}

// A name is taken by the bucket that has it now, and by the bucket that will have it after the next start.
bool CObjectStorageManager::IsNameTaken(const std::string& name) {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  return buckets_.contains(name) || std::any_of(buckets_.begin(), buckets_.end(),
                                                [&name](const auto& entry) { return entry.second.info.name == name; });
}

bool CObjectStorageManager::IsNameTakenByAnother(const BucketInfo& bucket) {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  return std::any_of(buckets_.begin(), buckets_.end(), [&bucket](const auto& entry) {
    return entry.second.info.id != bucket.id && (entry.first == bucket.name || entry.second.info.name == bucket.name);
  });
}

// Gives the name that the rows of a bucket's objects and tasks use for it.
std::string CObjectStorageManager::RowName(const std::string& bucket_name) {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  const auto found = buckets_.find(bucket_name);
  return found != buckets_.end() ? found->second.info.name : bucket_name;
}

std::string CObjectStorageManager::RowNameById(std::uint32_t bucket_id) {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  const auto found = FindBucketById(buckets_, bucket_id);
  return found != buckets_.end() ? found->second.info.name : std::string();
}

bool CObjectStorageManager::AddBucket(BucketInfo& bucket) {
  const auto change = LockBucketChanges();
  if (IsNameTaken(bucket.name)) {
    CLOUD_LOG(logging::kError, "[%s]Add bucket[%s] failed, bucket already exist.[%s(%d)]", bucket.name.c_str());
    return false;
  }
  // The map's entry is made before the row: once the row is there, lack of memory must not keep memory and database
  // from agreeing.
  BucketMap added;
  added.try_emplace(bucket.name, Bucket{bucket, nullptr});
  if (!CObjectServerSession::CreateBucket(bucket)) {
    CLOUD_LOG(logging::kError, "[%s]Add bucket[%s] failed, db operation failed.[%s(%d)]", bucket.name.c_str());
    return false;
  }
  if (shared_) {
    WaitUntilVisible();
    return true;
  }
  const std::lock_guard<std::shared_mutex> lock(bucket_mutex_);
  added.begin()->second.info.id = bucket.id;
  added.begin()->second.info.acl = bucket.acl;
  buckets_.insert(added.extract(added.begin()));
  return true;
}

bool CObjectStorageManager::ModifyBucket(const BucketInfo& bucket) {
  const auto change = LockBucketChanges();
  // With all names locked, an object is added either before this and renamed with the rest, or after this under the new
  // name.
  const auto all_objects_lock = object_locks_.LockAll();
  if (shared_ && bucket.name != RowNameById(bucket.id)) {
    CLOUD_LOG(logging::kError, "[%s]Modify bucket[%s] failed, other nodes know it by its name.[%s(%d)]",
              bucket.name.c_str());
    return false;
  }
  if (IsNameTakenByAnother(bucket)) {
    CLOUD_LOG(logging::kError, "[%s]Modify bucket[%s] failed, bucket already exist.[%s(%d)]", bucket.name.c_str());
    return false;
  }
  // This is made before the row is changed: afterwards, memory that runs out must not keep the two from agreeing.
  BucketInfo changed = bucket;
  if (!CObjectServerSession::ModifyBucket(bucket, RowNameById(bucket.id))) {
    CLOUD_LOG(logging::kError, "[%s]Modify bucket[%s] failed, db operation failed.[%s(%d)]", bucket.name.c_str());
    return false;
  }
  if (shared_) {
    WaitUntilVisible();
    return true;
  }
  const std::lock_guard<std::shared_mutex> lock(bucket_mutex_);
  const auto found = FindBucketById(buckets_, bucket.id);
  if (found == buckets_.end()) {
    CLOUD_LOG(logging::kError, "[%s]Modify bucket[%s] failed, bucket not exist.[%s(%d)]", bucket.name.c_str());
    return false;
  }
  // The map's key stays, because a renamed bucket keeps its old name here until the next start.
  BucketInfo& stored = found->second.info;
  stored.name = std::move(changed.name);
  stored.reserve = std::move(changed.reserve);
  stored.location = std::move(changed.location);
  stored.cycle = changed.cycle;
  stored.size = changed.size;
  return true;
}

bool CObjectStorageManager::RemoveBucket(std::uint32_t id) {
  const auto change = LockBucketChanges();
  // The lock is held until the bucket is gone from memory too: an upload comes before all of this, and its object is
  // removed, or it finds no bucket.
  const auto all_objects_lock = object_locks_.LockAll();
  const BucketNames names = FindNames({id}, CLOUD_LOG_CALLER);
  if (!CObjectServerSession::DeleteBucket(id, names.in_rows)) {
    CLOUD_LOG(logging::kError, "[%s]remove bucket[%d] failed, db operation failed.[%s(%d)]", static_cast<int>(id));
    return false;
  }
  ForgetBuckets(names);
  return true;
}

bool CObjectStorageManager::RemoveBucket(const std::set<std::uint32_t>& ids) {
  const auto change = LockBucketChanges();
  const auto all_objects_lock = object_locks_.LockAll();
  const BucketNames names = FindNames(ids, CLOUD_LOG_CALLER);
  if (!CObjectServerSession::DeleteBuckets(ids, names.in_rows)) {
    CLOUD_LOG(logging::kError, "[%s]remove buckets failed, db operation failed.[%s(%d)]");
    return false;
  }
  ForgetBuckets(names);
  return true;
}

bool CObjectStorageManager::IsBucketEmpty(const std::string& name) {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  const CObjectTable* const table = TableOf(name);
  return table == nullptr || !table->FindFrom({}, true, [](const CPackedObject&) {});
}

bool CObjectStorageManager::RemoveEmptyBucket(const std::string& bucket_name, bool& is_empty) {
  const auto change = LockBucketChanges();
  // With all names locked, an upload into the bucket comes before this, and the bucket stays, or it finds no bucket.
  const auto all_objects_lock = object_locks_.LockAll();
  CatchUp();
  is_empty = IsBucketEmpty(bucket_name);
  BucketInfo bucket;
  if (!is_empty || !GetBucketByName(bucket, bucket_name)) {
    return false;
  }
  const BucketNames names = FindNames({bucket.id}, CLOUD_LOG_CALLER);
  if (!CObjectServerSession::DeleteBucket(bucket.id, names.in_rows)) {
    CLOUD_LOG(logging::kError, "[%s]remove bucket[%s] failed, db operation failed.[%s(%d)]", bucket_name.c_str());
    is_empty = !CatchUp() || IsBucketEmpty(bucket_name);  // another node may have stored something meanwhile
    return false;
  }
  ForgetBuckets(names);
  return true;
}

// Logs ids that no bucket has in the name of `caller`.
CObjectStorageManager::BucketNames CObjectStorageManager::FindNames(const std::set<std::uint32_t>& ids,
                                                                    const details::Caller& caller) {
  BucketNames names;
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  for (const std::uint32_t id : ids) {
    const auto found = FindBucketById(buckets_, id);
    if (found == buckets_.end()) {
      CLOUD_LOG_FOR(caller, logging::kNotable, "[%s]remove object by bucket, bucket[%s] not exist.[%s(%d)]",
                    std::to_string(id).c_str());
      continue;
    }
    names.in_memory.push_back(found->first);
    names.in_rows.push_back(found->second.info.name);
  }
  return names;
}

// Called after the rows are removed, and therefore allocates nothing. What is forgotten is freed outside the lock,
// because there may be millions of objects.
void CObjectStorageManager::ForgetBuckets(const BucketNames& names) noexcept {
  if (shared_) {
    WaitUntilVisible();
    return;
  }
  for (const std::string& name : names.in_memory) {
    BucketMap::node_type forgotten;
    const std::lock_guard<std::shared_mutex> lock(bucket_mutex_);
    forgotten = buckets_.extract(name);
  }
}

void CObjectStorageManager::ForgetObjects(const BucketNames& names) noexcept {
  if (shared_) {
    WaitUntilVisible();
    return;
  }
  for (const std::string& name : names.in_memory) {
    std::unique_ptr<CObjectTable> forgotten;
    const std::lock_guard<std::shared_mutex> lock(bucket_mutex_);
    if (const auto bucket = buckets_.find(name); bucket != buckets_.end()) {
      forgotten = std::move(bucket->second.objects);
    }
  }
}

bool CObjectStorageManager::GetBucketByName(BucketInfo& bucket, const std::string& name) {
  if (!IsBucketExist(name)) {
    return false;
  }
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  const auto found = buckets_.find(name);
  if (found == buckets_.end()) {
    return false;
  }
  bucket = found->second.info;
  return true;
}

bool CObjectStorageManager::GetBucketList(std::map<std::string, BucketInfo>& buckets) {
  CatchUp();
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  buckets.clear();
  for (const auto& [name, bucket] : buckets_) {
    buckets.emplace_hint(buckets.end(), name, bucket.info);
  }
  return true;
}

void CObjectStorageManager::Count(ServerLoad& load) {
  {
    const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
    load.buckets = buckets_.size();
    load.objects = 0;
    load.object_bytes = 0;
    for (const auto& [name, bucket] : buckets_) {
      const CObjectTable::Contents contents = ContentsOf(bucket);
      load.objects += contents.objects;
      load.object_bytes += contents.bytes;
    }
  }
  const std::lock_guard<std::mutex> lock(task_mutex_);
  load.open_uploads = tasks_.size();
}

void CObjectStorageManager::Count(std::vector<BucketUsage>& usage) {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  for (const auto& [name, bucket] : buckets_) {
    const CObjectTable::Contents contents = ContentsOf(bucket);
    usage.push_back({name, contents.objects, contents.bytes});
  }
}

bool CObjectStorageManager::RemoveObjectByBucket(std::uint32_t bucket_id) {
  // With all names locked, an upload into the bucket happens either wholly before this or wholly after it.
  const auto all_objects_lock = object_locks_.LockAll();
  const BucketNames names = FindNames({bucket_id}, CLOUD_LOG_CALLER);
  if (names.in_memory.empty()) {
    return true;
  }
  if (!CObjectServerSession::DeleteObjectByBucket(names.in_rows.front())) {
    CLOUD_LOG(logging::kNotable, "[%s]remove object by bucket[%s], db operate failed.[%s(%d)]",
              names.in_memory.front().c_str());
    return false;
  }
  ForgetObjects(names);
  return true;
}

}  // namespace Tansy::CloudStorage
