// The exported bucket functions.
#include <map>
#include <utility>

#include "Boundary.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "TansyCloudStorage/Catalogue.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// A host sets this flag to confirm that it wants the bucket to be made.
constexpr std::uint32_t kAddBucketFlag = 1;

}  // namespace
}  // namespace details

bool ShareCatalogue(const std::string& node) {
  return AtBoundary("ShareCatalogue", false, [&] {
    CObjectStorageManager::Instance().Share(node);
    return true;
  });
}

bool AddBucket(BucketInfo& bucket) {
  return AtBoundary("AddBucket", false, [&] {
    return bucket.flag == details::kAddBucketFlag && CObjectStorageManager::Instance().AddBucket(bucket);
  });
}

bool GetBucketList(std::vector<BucketInfo>& buckets) {
  return AtBoundary("GetBucketList", false, [&] {
    std::map<std::string, BucketInfo> by_name;
    CObjectStorageManager::Instance().GetBucketList(by_name);
    buckets.reserve(buckets.size() + by_name.size());
    for (auto& [name, bucket] : by_name) {
      buckets.push_back(std::move(bucket));
    }
    return true;
  });
}

bool GetBucketByName(BucketInfo& bucket, const std::string& name) {
  return AtBoundary("GetBucketByName", false,
                    [&] { return CObjectStorageManager::Instance().GetBucketByName(bucket, name); });
}

bool ModifyBucket(const BucketInfo& bucket) {
  return AtBoundary("ModifyBucket", false, [&] { return CObjectStorageManager::Instance().ModifyBucket(bucket); });
}

bool IsCatalogueLoaded() {
  return CObjectStorageManager::Instance().IsLoaded();
}

bool DeleteBucket(std::uint32_t id) {
  return AtBoundary("DeleteBucket", false, [&] { return CObjectStorageManager::Instance().RemoveBucket(id); });
}

bool DeleteBucket(const std::set<std::uint32_t>& ids) {
  return AtBoundary("DeleteBucket", false, [&] { return CObjectStorageManager::Instance().RemoveBucket(ids); });
}

}  // namespace Tansy::CloudStorage
