// The catalogue's objects.
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

// Location texts that name a file end so, and start with the key of their volume.
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

bool CObjectStorageManager::AddObject(ObjectInfo& object) {
  const auto name_lock = object_locks_.Lock(object.bucket_name, object.name);
  if (!IsBucketExist(object.bucket_name)) {
    CLOUD_LOG(logging::kError, "[%s]Add Object[%s] failed, bucket[%s] not exist.[%s(%d)]", object.name.c_str(),
              object.bucket_name.c_str());
    return false;
  }
  ObjectInfo stored;
  if (GetObjectByName(stored, object.name, object.bucket_name)) {
    return UpdateObject(object);
  }
  if (!CObjectServerSession::CreateObject(object)) {
    CLOUD_LOG(logging::kError, "[%s]Add object[%s] failed, db operation failed.[%s(%d)]", object.name.c_str());
    return false;
  }
  const std::lock_guard<std::mutex> lock(object_mutex_);
  objects_[object.bucket_name].insert(object);
  return true;
}

bool CObjectStorageManager::UpdateObject(ObjectInfo& object) {
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
  if (!CObjectServerSession::UpdateObject(object)) {
    CLOUD_LOG(logging::kError, "[%s]update Object[%s] failed, db operate failed.[%s(%d)]", object.name.c_str());
    return false;
  }
  // The node is used again, so nothing can fail between taking the old record out and putting the new one in.
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
  const std::lock_guard<std::mutex> lock(object_mutex_);
  const auto bucket = objects_.find(bucket_name);
  if (bucket == objects_.end()) {
    CLOUD_LOG(logging::kError, "[%s]get Object[%s] failed, object not exist.[%s(%d)]", object_name.c_str());
    return false;
  }
  const auto found = bucket->second.find(std::string_view(object_name));
  if (found == bucket->second.end()) {
    CLOUD_LOG(logging::kError, "[%s]get Object[%s] failed, object not exist.[%s(%d)]", object_name.c_str());
    return false;
  }
  object = *found;
  return true;
}

bool CObjectStorageManager::RemoveObject(const std::string& object_name, const std::string& bucket_name) {
  // Not between the look-up and the update of an upload of the same name, which would then fail for no good reason.
  const auto name_lock = object_locks_.Lock(bucket_name, object_name);
  const std::lock_guard<std::mutex> lock(object_mutex_);
  const auto bucket = objects_.find(bucket_name);
  if (bucket == objects_.end()) {
    return true;
  }
  const auto found = bucket->second.find(std::string_view(object_name));
  if (found != bucket->second.end()) {
    if (!CObjectServerSession::DeleteObject(found->id)) {
      CLOUD_LOG(logging::kError, "[%s]remove object[%s] failed, db operation failed.[%s(%d)]", object_name.c_str());
    }
    bucket->second.erase(found);
  }
  return true;
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
