#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_SESSION_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_SESSION_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "StorageServer/ObjectServer/CatalogueRecords.h"

namespace Tansy::CloudStorage {

// Every SQL statement of the module, and how rows become records.
//
// Threads: any; each call takes a pooled connection of its own. Errors: false (kInvalidId for ids), with the reason in
// the log. What one call changes is one transaction: when it fails, the database is as it was.
//
// Numbers are written through 32 bits. Sizes come back unsigned, so an object of less than 4 GiB keeps its size over a
// restart; of a bigger one the low 32 bits remain.
class CObjectServerSession {
 public:
  static constexpr std::uint32_t kInvalidId = 0xFFFFFFFF;

  // The next value of a sequence; kInvalidId on failure.
  static std::uint32_t QueryNextID(const std::string& sequence, const std::string& table);

  // The inserts fill in the record's id; a new bucket's acl becomes 0.
  static bool CreateBucket(BucketInfo& bucket);
  // A bucket that gets another name takes the rows of its objects and upload tasks along. `old_name` is the name that
  // they have so far; empty for a bucket of which only the own row is to change.
  static bool ModifyBucket(const BucketInfo& bucket, const std::string& old_name = {});
  static bool DeleteBucket(std::uint32_t id);
  static bool DeleteBuckets(const std::set<std::uint32_t>& ids);
  // Adds every bucket to `buckets`, by name.
  static bool QueryBucket(std::map<std::string, BucketInfo>& buckets);

  // Where `ended_task` names an upload task, its rows go in the same step: the object is what became of it.
  static bool CreateObject(ObjectInfo& object, const std::string& ended_task = {});
  static bool UpdateObject(const ObjectInfo& object, const std::string& ended_task = {});
  static bool DeleteObjectByBucket(const std::string& bucket_name);
  static bool DeleteObject(std::uint32_t id);
  static bool QueryObject(ObjectSet& objects, const std::string& bucket_name);

  static bool GetAllObjectTask(std::vector<ObjectTaskInfo>& tasks);
  static bool InsertObjectTask(ObjectTaskInfo& task);
  static bool UpdateObjectTask(const ObjectTaskInfo& task);
  static bool DeleteObjectTask(const std::string& task_id);

  // The path prefix behind a four-character key. True, with `url` as it was, when the key is unknown.
  static bool GetUrlByEncryptUrl(std::string& url, const std::string& encrypt_url);
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_SESSION_H
