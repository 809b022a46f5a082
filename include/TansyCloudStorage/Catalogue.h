// Catalogue records, and the bucket functions that a host may call directly once InitObjectServer has returned.
// Threads: any thread may call them, also while requests run. Ownership: records are copied in both directions.
// Errors: a function returns false, and the log says why; nothing throws.
#ifndef TANSY_CLOUD_STORAGE_CATALOGUE_H
#define TANSY_CLOUD_STORAGE_CATALOGUE_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "TansyCloudStorage/Export.h"

namespace Tansy::CloudStorage {

struct BucketInfo {
  std::uint32_t id = 0;  // row id, given at creation
  std::string guid;
  std::string name;
  std::string reserve;    // carried in memory, copied by ModifyBucket, never stored
  std::uint32_t acl = 0;  // set to 0 at creation
  std::string location;
  std::uint32_t cycle = 0;  // retention cycle, kept and not enforced
  std::uint32_t size = 0;   // kept as the caller gave it, in whatever unit, and not enforced
  std::uint32_t flag = 0;   // must be 1 for AddBucket; never stored
};

struct ObjectInfo {
  std::uint32_t id = 0;
  std::string guid;
  std::string name;  // object key, the ordering key inside its bucket
  std::string bucket_name;
  std::uint64_t size = 0;   // bytes; the database keeps the low 32 bits
  std::string update_time;  // UTC
  std::string url;          // location text left by the storage callbacks
};

// Says whether the last InitObjectServer read the whole catalogue from the database. InitObjectServer itself succeeds
// even when it did not, and serves what it could read. A host asks here before it announces itself, because a client
// would otherwise take objects that could not be read for objects that do not exist. Returns false before the first
// InitObjectServer.
TANSY_CLOUD_STORAGE_API bool IsCatalogueLoaded();

// Says that several processes share the catalogue, and what this one is called among them; "" ends that. The database
// must be PostgreSQL with the tables and functions of tansyd's schema, and each transaction must begin as
// db_layer/SharedDatabase.h says. It is called before InitObjectServer, and again with "" when no request is left and
// the database is about to be closed. Returns false when memory runs out.
//
// Then a change is seen by every later request to this process at once, by a request to another process that asks for
// something that it does not know yet, and by every request to another process that comes 0.8 s later. Requests for
// which that cannot be kept, because the database does not answer, get status 503.
TANSY_CLOUD_STORAGE_API bool ShareCatalogue(const std::string& node);

// Adds a bucket and sets its `id` and `acl`. Returns false at once unless `flag` is 1.
TANSY_CLOUD_STORAGE_API bool AddBucket(BucketInfo& bucket);
// Appends every bucket in name order to `buckets`, which is not cleared first.
TANSY_CLOUD_STORAGE_API bool GetBucketList(std::vector<BucketInfo>& buckets);
TANSY_CLOUD_STORAGE_API bool GetBucketByName(BucketInfo& bucket, const std::string& name);
// Changes name, reserve, location, cycle and size of the bucket with this id. A renamed bucket takes its objects and
// upload tasks along; until the next start it is still found under its old name, by requests too. Returns false and
// changes nothing when another bucket has the new name or had it until its last renaming.
TANSY_CLOUD_STORAGE_API bool ModifyBucket(const BucketInfo& bucket);
// Removes buckets and the catalogue rows of their objects; stored bytes stay.
TANSY_CLOUD_STORAGE_API bool DeleteBucket(std::uint32_t id);
TANSY_CLOUD_STORAGE_API bool DeleteBucket(const std::set<std::uint32_t>& ids);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_CLOUD_STORAGE_CATALOGUE_H
