// The catalogue's objects.
#include <exception>
#include <iterator>
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

bool CObjectStorageManager::AddObject(ObjectInfo& object, const std::string& ended_task) {
  const auto name_lock = object_locks_.Lock(object.bucket_name, object.name);
  if (!IsBucketExist(object.bucket_name)) {
    CLOUD_LOG(logging::kError, "[%s]Add Object[%s] failed, bucket[%s] not exist.[%s(%d)]", object.name.c_str(),
              object.bucket_name.c_str());
    return false;
  }
  ObjectInfo stored;
  if (GetObjectByName(stored, object.name, object.bucket_name)) {
    if (!UpdateObject(object, ended_task)) {
      return false;
    }
  } else {
    ObjectInfo row = object;
    row.bucket_name = RowName(object.bucket_name);
    // The map's entry is made before the row: once the row is there, lack of memory must not keep memory and database
    // from agreeing.
    std::map<std::string, ObjectSet> added;
    added[object.bucket_name].insert(object);
    if (!CObjectServerSession::CreateObject(row, ended_task)) {
      CLOUD_LOG(logging::kError, "[%s]Add object[%s] failed, db operation failed.[%s(%d)]", object.name.c_str());
      return false;
    }
    object.id = row.id;
    TakeOver(added, row.id);
  }
  EndTask(ended_task);
  return true;
}

// Moves the only object of `added` to the others, under its id. This needs no memory.
void CObjectStorageManager::TakeOver(std::map<std::string, ObjectSet>& added, std::uint32_t id) noexcept {
  ObjectSet& fresh = added.begin()->second;
  auto node = fresh.extract(fresh.begin());
  node.value().id = id;
  const std::lock_guard<std::mutex> lock(object_mutex_);
  if (const auto bucket = objects_.find(added.begin()->first); bucket != objects_.end()) {
    bucket->second.insert(std::move(node));
  } else {
    fresh.insert(std::move(node));
    objects_.insert(added.extract(added.begin()));
  }
}

bool CObjectStorageManager::UpdateObject(ObjectInfo& object, const std::string& ended_task) {
  const std::lock_guard<std::mutex> lock(object_mutex_);
  const auto bucket = objects_.find(object.bucket_name);
  if (bucket == objects_.end()) {
    CLOUD_LOG(logging::kError, "[%s]update Object[%s] failed, bucket[%s] not exist.[%s(%d)]", object.name.c_str(),
              object.bucket_name.c_str());
    return false;
  }
  ObjectSet& objects = bucket->second;
  const auto found = objects.find(std::string_view(object.name));
  if (found == objects.end()) {
    CLOUD_LOG(logging::kError, "[%s]update Object[%s] failed, object not exist.[%s(%d)]", object.name.c_str());
    return false;
  }
  object.id = found->id;
  ObjectInfo replacement = object;
  if (!CObjectServerSession::UpdateObject(object, ended_task)) {
    CLOUD_LOG(logging::kError, "[%s]update Object[%s] failed, db operate failed.[%s(%d)]", object.name.c_str());
    return false;
  }
  // The set's node is used again, so nothing can fail between taking the old record out and putting the new record in.
  const auto next = std::next(found);
  auto node = objects.extract(found);
  node.value() = std::move(replacement);
  objects.insert(next, std::move(node));
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

bool CObjectStorageManager::FindObject(ObjectInfo& object, const std::string& object_name,
                                       const std::string& bucket_name) {
  const std::lock_guard<std::mutex> lock(object_mutex_);
  const auto bucket = objects_.find(bucket_name);
  if (bucket == objects_.end()) {
    return false;
  }
  const auto found = bucket->second.find(std::string_view(object_name));
  if (found == bucket->second.end()) {
    return false;
  }
  object = *found;
  return true;
}

bool CObjectStorageManager::IsStoredAt(const std::string& object_name, const std::string& bucket_name,
                                       const std::string& url) {
  ObjectInfo object;
  return FindObject(object, object_name, bucket_name) && object.url == url;
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
  const std::lock_guard<std::mutex> lock(object_mutex_);
  ObjectSet& objects = objects_.find(object.bucket_name)->second;
  auto node = objects.extract(objects.find(std::string_view(object.name)));
  node.value().id = row.id;
  objects.insert(std::move(node));
  return true;
}

void CObjectStorageManager::ForgetObject(const std::string& object_name, const std::string& bucket_name) noexcept {
  const std::lock_guard<std::mutex> lock(object_mutex_);
  const auto bucket = objects_.find(bucket_name);
  if (bucket == objects_.end()) {
    return;
  }
  if (const auto found = bucket->second.find(std::string_view(object_name)); found != bucket->second.end()) {
    bucket->second.erase(found);
  }
}

bool CObjectStorageManager::GetObjectFile(std::string& path, const std::string& object_name,
                                          const std::string& bucket_name) {
  std::string url;
  {
    const std::lock_guard<std::mutex> lock(object_mutex_);
    const auto bucket = objects_.find(bucket_name);
    if (bucket == objects_.end()) {
      CLOUD_LOG(logging::kError, "[%s]Object not exist.object_name %s,bucket_name %s[%s(%d)]", object_name.c_str(),
                bucket_name.c_str());
      return false;
    }
    const auto found = bucket->second.find(std::string_view(object_name));
    if (found == bucket->second.end()) {
      return false;
    }
    url = found->url;
  }
  // The volumes change nothing in the catalogue, so they are asked without holding up its readers.
  return details::ResolveFilePath(path, url);
}

}  // namespace Tansy::CloudStorage
