#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_STORAGE_MANAGER_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_STORAGE_MANAGER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
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

// What a task knows of its part size.
struct PartSizeInfo {
  std::uint32_t first_part_num = 0;  // number of the first part that arrived
  std::uint32_t first_part_size = 0;
  std::uint32_t part_size = 0;             // of every part but the last; 0 while not settled
  std::string first_part_path;             // file that holds the first part
  std::string reserve;                     // carried, not used by the catalogue
  std::shared_ptr<std::mutex> file_mutex;  // shared by all writers of the task
};

// The catalogue in memory: the authority for look-ups, written through to the database first.
//
// Four groups, each under its own mutex; no method holds two of them at once. Around these stand the key locks: whoever
// adds or removes a bucket or an object holds its name's lock from the first look-up to the last change, database
// included, so that memory and database always agree on what came last. Order: bucket locks, object locks, one mutex.
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
  bool ModifyBucket(const BucketInfo& bucket);
  bool RemoveBucket(std::uint32_t id);
  bool RemoveBucket(const std::set<std::uint32_t>& ids);
  bool GetBucketByName(BucketInfo& bucket, const std::string& name);
  bool GetBucketList(std::map<std::string, BucketInfo>& buckets);

  bool RemoveObjectByBucket(std::uint32_t bucket_id);
  // Adds an object or updates the one of that name. Parallel calls for one name are put in line, so that memory and
  // database agree on which came last.
  bool AddObject(ObjectInfo& object);
  bool UpdateObject(ObjectInfo& object);
  bool GetObjectByName(ObjectInfo& object, const std::string& object_name, const std::string& bucket_name);
  bool RemoveObject(const std::string& object_name, const std::string& bucket_name);
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

  // True when this part is the task's first and must be kept in a file; otherwise `part_size` is the agreed size.
  bool CheckPartSize(const std::string& task_id, std::uint32_t part_num, std::uint32_t size, std::uint32_t& part_size);
  bool SetFirstPartInfo(const std::string& task_id, const PartSizeInfo& info);
  bool GetPartFileMutex(const std::string& task_id, std::shared_ptr<std::mutex>& file_mutex);
  bool GetFirstPartInfo(const std::string& task_id, PartSizeInfo& info);
  bool RemovePartSizeInfo(const std::string& task_id);

 private:
  friend class CSingleton<CObjectStorageManager>;
  CObjectStorageManager() = default;
  ~CObjectStorageManager() = default;

  bool Load();
  bool LoadBuckets();
  bool LoadObjects();
  bool LoadTasks();
  void DropPartSizesOfEndedTasks();

  std::atomic<bool> loaded_{false};

  CKeyLocks<8> bucket_locks_;
  CKeyLocks<32> object_locks_;

  std::mutex bucket_mutex_;
  std::map<std::string, BucketInfo> buckets_;

  std::mutex object_mutex_;
  std::map<std::string, ObjectSet> objects_;

  std::mutex task_mutex_;
  std::map<std::string, TaskPartSet> tasks_;

  static constexpr std::size_t kPartSizesToSpare = 1024;
  std::mutex part_size_mutex_;
  std::map<std::string, PartSizeInfo> part_sizes_;
  std::size_t drop_part_sizes_at_ = kPartSizesToSpare;  // so many of them are looked through for ended tasks
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_STORAGE_MANAGER_H
