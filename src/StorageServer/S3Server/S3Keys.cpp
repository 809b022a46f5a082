#include "StorageServer/S3Server/S3Keys.h"

#include <algorithm>
#include <utility>

namespace Tansy::CloudStorage::S3 {

CS3Keys& CS3Keys::Instance() {
  return CSingleton<CS3Keys>::Instance();
}

bool CS3Keys::Replace(const std::vector<S3Key>& keys) {
  std::map<std::string, S3KeyPointer, std::less<>> fresh;
  for (const S3Key& key : keys) {
    if (key.access_key.empty() || key.secret_key.empty()) {
      return false;
    }
    fresh[key.access_key] = std::make_shared<const S3Key>(key);
  }
  keys_.Store(std::move(fresh));
  return true;
}

S3KeyPointer CS3Keys::Find(std::string_view access_key) const {
  const auto keys = keys_.Load();
  const auto found = keys->find(access_key);
  return found == keys->end() ? nullptr : found->second;
}

Failure FindIdentity(Identity& identity, S3KeyPointer& key, const S3ServerConfig& config, std::string_view access_key,
                     std::time_t now) {
  identity = {config.ak, config.sk, config.region};
  key = access_key == config.ak ? nullptr : CS3Keys::Instance().Find(access_key);
  if (key == nullptr) {
    return {};
  }
  identity.access_key = key->access_key;
  identity.secret_key = key->secret_key;
  const bool has_ended = key->expires != 0 && now >= key->expires;
  return has_ended ? Failure(EError::kInvalidAccessKeyId, "The time of this access key has ended.") : Failure();
}

bool MaySee(const S3KeyPointer& key, const std::string& bucket) {
  return key == nullptr || key->buckets.empty() ||
         std::find(key->buckets.begin(), key->buckets.end(), bucket) != key->buckets.end();
}

Failure CheckAccess(const S3KeyPointer& key, EAccess access, const std::string& bucket) {
  if (!bucket.empty() && !MaySee(key, bucket)) {
    return {EError::kAccessDenied, "This access key may not use this bucket."};
  }
  if (access == EAccess::kWrite && key != nullptr && key->read_only) {
    return {EError::kAccessDenied, "This access key may only read."};
  }
  return {};
}

}  // namespace Tansy::CloudStorage::S3
