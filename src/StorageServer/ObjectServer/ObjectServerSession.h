#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_SESSION_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_SESSION_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/CatalogueRecords.h"

namespace db_layer {
class IDatabaseEar;
}

namespace Tansy::CloudStorage {

// Holds every SQL statement of the module, and turns rows into records.
//
// Threads: any; each call takes a pooled connection of its own. Errors: a function returns false (kInvalidId for ids),
// and the log says why. What one call changes is one transaction: when it fails, the database is as it was.
//
// Numbers are written through 32 bits. Sizes are read back unsigned, so an object of less than 4 GiB keeps its size
// over a restart; of a larger size the low 32 bits remain.
class CObjectServerSession {
 public:
  static constexpr std::uint32_t kInvalidId = 0xFFFFFFFF;

  // Gives the next value of a sequence; kInvalidId on failure.
  static std::uint32_t QueryNextID(const std::string& sequence, const std::string& table);

  // The inserts fill in the record's id; a new bucket's acl becomes 0.
  static bool CreateBucket(BucketInfo& bucket);
  // Changes a bucket. When it gets another name, the rows of its objects and upload tasks change with it. `old_name` is
  // the name that they have so far; it is empty when only the bucket's own row is to change.
  static bool ModifyBucket(const BucketInfo& bucket, const std::string& old_name = {});
  // The rows of the objects of `bucket_names` go along.
  static bool DeleteBucket(std::uint32_t id, const std::vector<std::string>& bucket_names = {});
  static bool DeleteBuckets(const std::set<std::uint32_t>& ids, const std::vector<std::string>& bucket_names = {});
  // Adds every bucket to `buckets`, by name.
  static bool QueryBucket(std::map<std::string, BucketInfo>& buckets);

  // Gives the time of each bucket's row by the bucket's name.
  static bool QueryBucketTimes(std::map<std::string, std::string>& times);

  // They bring what belongs to the object along in the same step.
  static bool CreateObject(ObjectInfo& object, const ObjectExtras& extras = {});
  static bool UpdateObject(const ObjectInfo& object, const ObjectExtras& extras = {});
  // The same, but they may return before the change is committed. `done` is called once with the result: before they
  // return, or later on another thread, on which other writers wait meanwhile. An exception means that it will not be
  // called.
  using Done = std::function<void(bool succeeded)>;
  static void CreateObject(ObjectInfo& object, const ObjectExtras& extras, Done done);
  static void UpdateObject(const ObjectInfo& object, const ObjectExtras& extras, Done done);
  // Gives an object other attributes.
  static bool SetAttributes(std::uint32_t object_id, const std::string& attributes);
  // Shows name, bucket and url of each object that has attributes, and them. Returns false like QueryObject.
  using AttributesVisitor = std::function<void(const ObjectInfo& object, std::string_view attributes)>;
  static bool QueryAttributes(const AttributesVisitor& take);
  static bool DeleteObjectByBucket(const std::string& bucket_name);
  static bool DeleteObject(std::uint32_t id);
  static bool DeleteObjects(const std::vector<std::uint32_t>& ids);
  // These are for a catalogue that others change too, of which memory may know less than the database. They change what
  // the object of that name is by then.
  static bool PutObject(const ObjectInfo& object, const ObjectExtras& extras = {});
  static void PutObject(const ObjectInfo& object, const ObjectExtras& extras, Done done);
  // Unless it has attributes, or its bytes are no longer those at `object.url`.
  static bool FillInAttributes(const ObjectInfo& object, const std::string& attributes);
  static bool DeleteObject(const std::string& bucket_name, const std::string& object_name);
  // Each of `expected` must still have its bytes, by their url; else nothing is removed.
  static bool DeleteObjects(const std::string& bucket_name, const std::vector<std::string>& object_names,
                            const std::vector<ObjectInfo>& expected);
  // Shows the objects of a bucket one by one; the record lasts for that call. Returns false also when `take` runs out
  // of memory. After false, some objects may have been shown and others not.
  using ObjectVisitor = std::function<void(const ObjectInfo& object)>;
  static bool QueryObject(const ObjectVisitor& take, const std::string& bucket_name);
  // The same with their attributes.
  static bool QueryObject(const AttributesVisitor& take, const std::string& bucket_name);

  // With a node's name, only the tasks that this node holds.
  static bool GetAllObjectTask(std::vector<ObjectTaskInfo>& tasks, const std::string& node = {});
  // Gives the name of the node that holds a task; it is empty when there is no such task.
  static bool GetTaskNode(std::string& node, const std::string& task_id);
  static bool InsertObjectTask(ObjectTaskInfo& task);
  static bool UpdateObjectTask(const ObjectTaskInfo& task);
  static bool DeleteObjectTask(const std::string& task_id);

  // Gives the path prefix behind a four-character key. When the key is unknown, it returns true and leaves `url` as it
  // was.
  static bool GetUrlByEncryptUrl(std::string& url, const std::string& encrypt_url);

  // For a catalogue that several processes share: these give the time of the database's clock, and the name of the
  // first node that lives; it is empty when none does.
  static bool GetDatabaseTime(std::time_t& time);
  static bool GetFirstNode(std::string& node);
  // Gives the newest entry of the log of changes.
  static bool GetLastChange(db_layer::IDatabaseEar& ear, ChangePosition& position);
  // Shows the entry at a position and at most `limit` entries after it, in their order, each with the object as it is
  // now; all are as of one instant.
  using ChangeVisitor = std::function<void(const CatalogueChange& change)>;
  static bool QueryChanges(db_layer::IDatabaseEar& ear, const ChangePosition& from, int limit,
                           const ChangeVisitor& take);

 private:
  static bool TakeObjectId(ObjectInfo& object, const details::Caller& caller);
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_SESSION_H
