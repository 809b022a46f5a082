#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_STORAGE_MANAGER_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_STORAGE_MANAGER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "Singleton.h"
#include "StorageServer/ObjectServer/CatalogueRecords.h"
#include "StorageServer/ObjectServer/KeyLocks.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/Catalogue.h"

namespace Tansy::CloudStorage {

// The catalogue in memory: the authority for look-ups, written through to the database first.
//
// Four groups, each under its own mutex; no method holds two of them at once. Around these stand one mutex for
// changes of buckets, and a lock per key for changes of objects: whoever adds or removes something holds it from the
// first look-up to the last change, database included, so that memory and database always agree on what came last.
// Order: the mutex of a task, the one for changes of buckets, the locks of keys, one of the four.
//
// A bucket that was given another name goes by its old one until the next start: requests, objects in memory and this
// class's arguments use the old name. The database knows it by the new name from then on.
//
// Threads: any. Every failure is a log line and a false or non-zero result.
class CObjectStorageManager : private TansyBase::CNoncopyable {
 public:
  static CObjectStorageManager& Instance();

  // Loads everything from the database. A failure leaves what was loaded so far.
  bool Init();
  // Whether the last Init loaded everything.
  bool IsLoaded() const { return loaded_; }

  bool IsBucketExist(const std::string& name);
  bool AddBucket(BucketInfo& bucket);
  // False also when the new name is another bucket's: their objects could not be told apart any more.
  bool ModifyBucket(const BucketInfo& bucket);
  bool RemoveBucket(std::uint32_t id);
  bool RemoveBucket(const std::set<std::uint32_t>& ids);
  bool GetBucketByName(BucketInfo& bucket, const std::string& name);
  bool GetBucketList(std::map<std::string, BucketInfo>& buckets);

  bool RemoveObjectByBucket(std::uint32_t bucket_id);
  // Adds an object or updates the one of that name. Parallel calls for one name are put in line, so that memory and
  // database agree on which came last.
  // Where `ended_task` names the upload task that became this object, the task ends in the same step; the caller holds
  // the task's mutex.
  bool AddObject(ObjectInfo& object, const std::string& ended_task = {});
  bool UpdateObject(ObjectInfo& object, const std::string& ended_task = {});
  bool GetObjectByName(ObjectInfo& object, const std::string& object_name, const std::string& bucket_name);
  // Whether the object exists and its bytes are those at `url`.
  bool IsStoredAt(const std::string& object_name, const std::string& bucket_name, const std::string& url);
  // Frees the stored bytes at a path; false when they are still there.
  using RemoveFile = std::function<bool(const std::string& path)>;
  // True when the object is gone, also when it was not there. False, and nothing changed, when the database refuses.
  // With `remove_file` the object's stored bytes go too, in one step with the row: an upload of that name comes wholly
  // before or wholly after it. It is called at most once, with what GetObjectFile gives, and must not call the
  // catalogue; when it refuses, the object stays and the result is false.
  bool RemoveObject(const std::string& object_name, const std::string& bucket_name, const RemoveFile& remove_file = {});
  // The storage path behind an object's location text, for removal.
  bool GetObjectFile(std::string& path, const std::string& object_name, const std::string& bucket_name);

  bool AddObjectTask(ObjectTaskInfo& task);
  bool InsertObjectTask(ObjectTaskInfo& task);
  bool GetAllTask(const std::string& task_id, TaskPartSet& parts);
  bool GetTaskInfo(const std::string& task_id, std::uint32_t part_num, ObjectTaskInfo& part);
  // 0 the part exists with this size, 1 the task is missing or another object's, 2 no such part, 3 another size.
  int CheckTaskInfoExist(const ObjectTaskInfo& task);
  bool RemoveObjectTask(const std::string& task_id);
  // Task id to update time of its lowest-numbered part.
  bool GetTaskUpdateTime(std::map<std::string, std::string>& times);
  // How many seconds ago the lowest-numbered part of a task was written. Measured with a clock that nobody sets; for
  // what was written before this start, from the age that it had then. False when nobody knows.
  bool GetTaskAge(const std::string& task_id, std::int64_t& seconds);

  // True when this part is the task's first and must be kept in a file; otherwise `part_size` is the agreed size.
  // Fixed: docs/compatibility.md, "First parts of uploads".
  bool CheckPartSize(const std::string& task_id, std::uint32_t part_num, std::uint32_t size, std::uint32_t& part_size);
  bool SetFirstPartInfo(const std::string& task_id, const PartSizeInfo& info);
  // The mutex of a task. Whoever stores a part of it, completes it or sweeps it away holds it, and looks for the task
  // only then. False when there is no such task.
  bool GetPartFileMutex(const std::string& task_id, std::shared_ptr<std::mutex>& file_mutex);
  // False while no part of the task has arrived.
  bool GetFirstPartInfo(const std::string& task_id, PartSizeInfo& info);
  // As if no part had arrived.
  void ForgetFirstPart(const std::string& task_id);
  bool RemovePartSizeInfo(const std::string& task_id);

 private:
  friend class CSingleton<CObjectStorageManager>;
  CObjectStorageManager() = default;
  ~CObjectStorageManager() = default;

  bool LoadBuckets();
  bool LoadObjects();
  bool LoadTasks();
  void LoadAges();
  void RecoverPartSizes();
  void DropPartSizesOfEndedTasks();
  bool IsNameTaken(const std::string& name);
  bool IsNameTakenByAnother(const BucketInfo& bucket);
  std::string RowName(const std::string& bucket_name);
  bool FindObject(ObjectInfo& object, const std::string& object_name, const std::string& bucket_name);
  void ForgetObject(const std::string& object_name, const std::string& bucket_name);
  bool PutRowBack(const ObjectInfo& object);
  void TakeOver(std::map<std::string, ObjectSet>& added, std::uint32_t id) noexcept;
  void EndTask(const std::string& task_id);
  std::string RowNameById(std::uint32_t bucket_id);

  using AllObjectsGuard = CKeyLocks<32>::AllGuard;
  bool RemoveObjectByBucket(std::uint32_t bucket_id, const AllObjectsGuard& held);

  std::atomic<bool> loaded_{false};

  std::mutex bucket_changes_;  // held by whoever adds, changes or removes a bucket, database included
  CKeyLocks<32> object_locks_;

  std::mutex bucket_mutex_;
  std::map<std::string, BucketInfo> buckets_;

  std::mutex object_mutex_;
  std::map<std::string, ObjectSet> objects_;

  std::mutex task_mutex_;
  std::map<std::string, TaskPartSet> tasks_;
  std::map<std::string, std::int64_t> task_births_;  // what TimeUtil::Uptime gave, or would have given, at the write

  static constexpr std::size_t kPartSizesToSpare = 1024;
  std::mutex part_size_mutex_;
  std::map<std::string, PartSizeInfo> part_sizes_;
  std::size_t drop_part_sizes_at_ = kPartSizesToSpare;  // so many of them are looked through for ended tasks
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_STORAGE_MANAGER_H
