// The catalogue's objects.
#include <exception>
#include <memory>
#include <string_view>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "TansyBase/StringUtil.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// Location texts that name a file end with this suffix, and begin with the key of their volume.
constexpr std::string_view kFileSuffix = ".d";
constexpr std::size_t kVolumeKeyLength = 4;

// Turns the location text of a stored file into its path: the volume's path behind the first four characters, then the
// rest with its dashes as separators.
bool ResolveFilePath(std::string& path, const std::string& url) {
  if (!url.ends_with(kFileSuffix)) {
    return false;
  }
  std::string volume;
  if (!CObjectServerSession::GetUrlByEncryptUrl(volume, url.substr(0, kVolumeKeyLength)) || volume.empty()) {
    return false;
  }
  const std::string_view rest = url.size() > kVolumeKeyLength ? std::string_view(url).substr(kVolumeKeyLength) : "";
  path = volume + TansyBase::StringUtil::StringReplace(rest, "-", "\\");
  return true;
}

}  // namespace
}  // namespace details

CObjectTable* CObjectStorageManager::TableOf(const std::string& bucket_name) const {
  const auto bucket = buckets_.find(bucket_name);
  return bucket != buckets_.end() ? bucket->second.objects.get() : nullptr;
}

bool CObjectStorageManager::AddObject(ObjectInfo& object, const std::string& ended_task) {
  const auto name_lock = object_locks_.Lock(object.bucket_name, object.name);
  if (!IsBucketExist(object.bucket_name)) {
    CLOUD_LOG(logging::kError, "[%s]Add Object[%s] failed, bucket[%s] not exist.[%s(%d)]", object.name.c_str(),
              object.bucket_name.c_str());
    return false;
  }
  ObjectInfo stored;
  if (GetObjectByName(stored, object.name, object.bucket_name)) {
    if (!UpdateObject(object, ended_task, name_lock)) {
      return false;
    }
  } else if (!CreateObject(object, ended_task, name_lock)) {
    CLOUD_LOG(logging::kError, "[%s]Add object[%s] failed, db operation failed.[%s(%d)]", object.name.c_str());
    return false;
  }
  EndTask(ended_task);
  return true;
}

// What memory needs is made before the row: once the row is there, lack of memory must not keep memory and database
// from agreeing.
bool CObjectStorageManager::CreateObject(ObjectInfo& object, const std::string& ended_task, const KeyLock&) {
  CPackedObject::Pointer packed = CPackedObject::Make(object);
  std::unique_ptr<CObjectTable> first_table;
  {
    const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
    first_table = TableOf(object.bucket_name) == nullptr ? std::make_unique<CObjectTable>() : nullptr;
  }
  ObjectInfo row = object;
  row.bucket_name = RowName(object.bucket_name);
  if (!CObjectServerSession::CreateObject(row, ended_task)) {
    return false;
  }
  object.id = row.id;
  packed->SetId(row.id);
  Publish(object.bucket_name, std::move(packed), std::move(first_table));
  return true;
}

// Lets look-ups find an object whose row is there. The lock of its key keeps the bucket.
void CObjectStorageManager::Publish(const std::string& bucket_name, CPackedObject::Pointer object,
                                    std::unique_ptr<CObjectTable> first_table) noexcept {
  if (first_table) {
    const std::lock_guard<std::shared_mutex> lock(bucket_mutex_);
    std::unique_ptr<CObjectTable>& table = buckets_.find(bucket_name)->second.objects;
    if (!table) {  // otherwise a writer of another key was first
      table = std::move(first_table);
    }
  }
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  TableOf(bucket_name)->Put(std::move(object));
}

bool CObjectStorageManager::UpdateObject(ObjectInfo& object, const std::string& ended_task) {
  return UpdateObject(object, ended_task, object_locks_.Lock(object.bucket_name, object.name));
}

bool CObjectStorageManager::UpdateObject(ObjectInfo& object, const std::string& ended_task, const KeyLock&) {
  {
    const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
    const CObjectTable* const table = TableOf(object.bucket_name);
    if (table == nullptr) {
      CLOUD_LOG(logging::kError, "[%s]update Object[%s] failed, bucket[%s] not exist.[%s(%d)]", object.name.c_str(),
                object.bucket_name.c_str());
      return false;
    }
    if (!table->Find(object.name, [&object](const CPackedObject& stored) { object.id = stored.Id(); })) {
      CLOUD_LOG(logging::kError, "[%s]update Object[%s] failed, object not exist.[%s(%d)]", object.name.c_str());
      return false;
    }
  }
  CPackedObject::Pointer replacement = CPackedObject::Make(object);
  if (!CObjectServerSession::UpdateObject(object, ended_task)) {
    CLOUD_LOG(logging::kError, "[%s]update Object[%s] failed, db operate failed.[%s(%d)]", object.name.c_str());
    return false;
  }
  Publish(object.bucket_name, std::move(replacement));
  return true;
}

bool CObjectStorageManager::GetObjectByName(ObjectInfo& object, const std::string& object_name,
                                            const std::string& bucket_name) {
  if (!IsBucketExist(bucket_name)) {
    CLOUD_LOG(logging::kError, "[%s]get Object[%s] failed, bucket[%s] not exist.[%s(%d)]", object_name.c_str(),
              bucket_name.c_str());
    return false;
  }
  if (!FindObject(object, object_name, bucket_name)) {
    CLOUD_LOG(logging::kError, "[%s]get Object[%s] failed, object not exist.[%s(%d)]", object_name.c_str());
    return false;
  }
  return true;
}

bool CObjectStorageManager::GetObjectAtRest(ObjectInfo& object, const std::string& object_name,
                                            const std::string& bucket_name) {
  const auto name_lock = object_locks_.Lock(bucket_name, object_name);
  return GetObjectByName(object, object_name, bucket_name);
}

bool CObjectStorageManager::FindObject(ObjectInfo& object, const std::string& object_name,
                                       const std::string& bucket_name) {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  const CObjectTable* const table = TableOf(bucket_name);
  const auto copy = [&object, &bucket_name](const CPackedObject& stored) {
    stored.CopyTo(object);
    object.bucket_name = bucket_name;
  };
  return table != nullptr && table->Find(object_name, copy);
}

bool CObjectStorageManager::IsStoredAt(const std::string& object_name, const std::string& bucket_name,
                                       const std::string& url) {
  bool is_there = false;
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  const CObjectTable* const table = TableOf(bucket_name);
  return table != nullptr &&
         table->Find(object_name, [&](const CPackedObject& stored) { is_there = stored.Url() == url; }) && is_there;
}

bool CObjectStorageManager::RemoveObject(const std::string& object_name, const std::string& bucket_name,
                                         const RemoveFile& remove_file) {
  // The removal must not come between the look-up and the update of an upload of the same name, because the upload
  // would then fail for no good reason and leave its bytes behind.
  const auto name_lock = object_locks_.Lock(bucket_name, object_name);
  std::string path;
  const bool has_file = remove_file && GetObjectFile(path, object_name, bucket_name);
  ObjectInfo object;
  if (!FindObject(object, object_name, bucket_name)) {
    return true;
  }
  // The row is removed first: bytes without a row can be found and freed, but a row without bytes is an object that
  // cannot be read.
  if (!CObjectServerSession::DeleteObject(object.id)) {
    CLOUD_LOG(logging::kError, "[%s]remove object[%s] failed, db operation failed.[%s(%d)]", object_name.c_str());
    return false;
  }
  try {
    if (has_file && !remove_file(path)) {
      UndoRemoval(object);
      return false;
    }
  } catch (...) {
    // The host's storage threw, or memory ran out.
    UndoRemoval(object);
    throw;
  }
  ForgetObject(object_name, bucket_name);
  return true;
}

// Called after the row is removed. Puts the row back; where that fails, it removes the object from memory too, and no
// row names its bytes any more.
void CObjectStorageManager::UndoRemoval(const ObjectInfo& object) noexcept {
  bool is_back = false;
  try {
    is_back = PutRowBack(object);
  } catch (const std::exception&) {
    is_back = false;  // out of memory; nothing is thrown once the row is there
  }
  if (!is_back) {
    ForgetObject(object.name, object.bucket_name);
  }
}

// Undoes the removal of a row; the new row has an id of its own. Returns false when the database refuses.
bool CObjectStorageManager::PutRowBack(const ObjectInfo& object) {
  ObjectInfo row = object;
  row.bucket_name = RowName(object.bucket_name);
  if (!CObjectServerSession::CreateObject(row)) {
    CLOUD_LOG(logging::kError, "[%s]put back object[%s] failed, db operation failed.[%s(%d)]", object.name.c_str());
    return false;
  }
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  TableOf(object.bucket_name)->SetId(object.name, row.id);
  return true;
}

void CObjectStorageManager::ForgetObject(const std::string& object_name, const std::string& bucket_name) noexcept {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  if (CObjectTable* const table = TableOf(bucket_name)) {
    table->Remove(object_name);
  }
}

bool CObjectStorageManager::GetObjectFile(std::string& path, const std::string& object_name,
                                          const std::string& bucket_name) {
  std::string url;
  {
    const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
    const CObjectTable* const table = TableOf(bucket_name);
    if (table == nullptr) {
      CLOUD_LOG(logging::kError, "[%s]Object not exist.object_name %s,bucket_name %s[%s(%d)]", object_name.c_str(),
                bucket_name.c_str());
      return false;
    }
    if (!table->Find(object_name, [&url](const CPackedObject& stored) { url = stored.Url(); })) {
      return false;
    }
  }
  // The volumes change nothing in the catalogue, so they are asked without holding up its readers.
  return details::ResolveFilePath(path, url);
}

}  // namespace Tansy::CloudStorage
