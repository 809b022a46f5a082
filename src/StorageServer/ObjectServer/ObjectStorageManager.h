#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_STORAGE_MANAGER_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_STORAGE_MANAGER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "ModuleLog.h"
#include "Singleton.h"
#include "StorageServer/ObjectServer/CatalogueRecords.h"
#include "StorageServer/ObjectServer/KeyLocks.h"
#include "StorageServer/ObjectServer/ObjectTable.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/Catalogue.h"
#include "TansyCloudStorage/ServerLoad.h"

namespace Tansy::CloudStorage {

// The catalogue in memory. It is the authority for look-ups; every change is written to the database first.
//
// The records form three groups with one mutex per group: buckets with their objects, upload tasks, and part sizes.
// None of the three is ever held while the database works, so that no look-up waits for a disk; no method holds two of
// them at once. The objects of a bucket are spread over mutexes of their own inside it.
//
// Around them there are one mutex for changes of buckets, one lock per key for changes of objects, which all names
// share that stand for the key, and one lock per task for changes of its rows. A method that changes something holds
// them from the first look-up to the last change, database included, so that memory and database always agree on which
// change came last; memory follows once the database has committed. The order is: the mutex of a task, the mutex for
// changes of buckets, the locks of keys, the locks of tasks, one of the three.
//
// A bucket that was given another name keeps its old one here until the next start: requests, objects in memory and
// this class's arguments use the old name. The database knows the bucket by the new name from then on.
//
// Several processes may share the catalogue (Share). Then memory follows the database: what is committed here or
// elsewhere comes into memory by way of the log of changes only, in the order of the commits. A change that was made
// here has come when its method returns. What is missing in memory is looked for once more after memory has caught up;
// methods that look something up throw CCatalogueAway when that is not possible.
//
// Threads: any. Errors: every failure writes a log line and returns false or a non-zero result.
class CObjectStorageManager : private TansyBase::CNoncopyable {
 public:
  static CObjectStorageManager& Instance();

  // Loads everything from the database. A failure leaves what was loaded so far.
  bool Init();
  // Says whether the last Init loaded everything.
  bool IsLoaded() const { return loaded_; }

  // Makes this process one of several nodes that share the catalogue, under this name; an empty one ends that. To be
  // called before Init, and at the end before the database is closed; no request may be under way.
  void Share(const std::string& node);
  bool IsShared() const { return shared_ != nullptr; }
  // Brings memory up to what was committed before by whomever. Returns false when this process alone changes the
  // catalogue. Throws CCatalogueAway.
  bool CatchUp();
  // Throws CCatalogueAway when memory is older than clients were promised and cannot catch up.
  void ExpectFresh();
  // Gives the time by which rows are dated: that of this machine, or of the database's when the catalogue is shared.
  bool GetTimeOfRows(std::time_t& time);
  // Says whether this process does what has to be done once, and not by each of those that share the catalogue.
  bool IsFirst();

  bool IsBucketExist(const std::string& name);
  bool AddBucket(BucketInfo& bucket);
  // Returns false also when another bucket has the new name, because their objects could not be told apart any more.
  bool ModifyBucket(const BucketInfo& bucket);
  // Removes the bucket with its objects, or changes nothing and returns false.
  bool RemoveBucket(std::uint32_t id);
  bool RemoveBucket(const std::set<std::uint32_t>& ids);
  bool GetBucketByName(BucketInfo& bucket, const std::string& name);
  bool GetBucketList(std::map<std::string, BucketInfo>& buckets);
  // Fills in how much there is of everything.
  void Count(ServerLoad& load);
  // Appends what each bucket has, in the order of their names, as memory knows it: nothing is waited for.
  void Count(std::vector<BucketUsage>& usage);
  // Gives the name that rows use for a bucket.
  std::string RowName(const std::string& bucket_name);

  bool RemoveObjectByBucket(std::uint32_t bucket_id);
  // Adds an object or updates the object of that name. Parallel calls for one name are serialised, so that memory and
  // database agree on which came last.
  // When `ended_task` names the upload task that became this object, the task ends in the same step; the caller holds
  // the task's mutex.
  bool AddObject(ObjectInfo& object, const std::string& ended_task = {});
  // The same without a task, but it may return before the object is there. `done` is called once with the result:
  // before this returns, or later on another thread, on which other writers wait meanwhile. An exception
  // (std::bad_alloc) means that it will not be called.
  using Added = std::function<void(bool added)>;
  void AddObject(const ObjectInfo& object, Added done);
  // The same with what belongs to the object, and on a condition: `may_add` is asked what it thinks of the object that
  // the key has now and its attributes, null when there is none, which does not change meanwhile. It must not call the
  // catalogue. The object's name is the canonical one of its key; an object that FindObjectOfKey finds is replaced
  // under the name that it has.
  enum class EAdded { kAdded, kRefused, kFailed };  // kRefused: by `may_add`
  using MayAdd = std::function<bool(const ObjectInfo* there, const std::string& attributes)>;
  using AddedOnTerms = std::function<void(EAdded result)>;
  void AddObject(const ObjectInfo& object, const ObjectExtras& extras, const MayAdd& may_add, AddedOnTerms done);
  bool UpdateObject(ObjectInfo& object, const std::string& ended_task = {});
  bool GetObjectByName(ObjectInfo& object, const std::string& object_name, const std::string& bucket_name);
  // Does the same, logs nothing when there is no such object, and gives its attributes too.
  bool FindObject(ObjectInfo& object, std::string& attributes, const std::string& object_name,
                  const std::string& bucket_name);
  // Gives the object that a key has: that of its canonical name, else the first of those whose names stand for the key
  // too (KeyOrder.h). `name` is the canonical name.
  bool FindObjectOfKey(ObjectInfo& object, std::string& attributes, const std::string& name,
                       const std::string& bucket_name);
  // Shows the objects of a bucket whose key is that of `from` or comes after it, in the order of their keys, until
  // `look` returns false; without `with_key`, those that come after it. Keys are compared byte by byte, and %XX stands
  // for the byte that it encodes; of several names of one key, that of FindObjectOfKey is shown first. The object lasts
  // for that call. What changes meanwhile is shown or not; `look` must not call the catalogue.
  using ObjectLook = std::function<bool(const CPackedObject& object)>;
  void ShowObjectsFrom(const std::string& from, bool with_key, const std::string& bucket_name, const ObjectLook& look);
  // Gives an object attributes unless its bytes are no longer those at `object.url` or it has some already. Returns
  // false when the database refuses.
  bool FillInAttributes(const ObjectInfo& object, const std::string& attributes);
  // Loads the attributes of all objects; requests may run meanwhile. Init does not, because only one server uses them.
  bool LoadAttributes();
  // Removes a bucket that has no object. `is_empty` says whether that is why the result is false.
  bool RemoveEmptyBucket(const std::string& bucket_name, bool& is_empty);
  // The same when no change of the object is under way any more. A removal frees the bytes before the object is gone
  // from memory.
  bool GetObjectAtRest(ObjectInfo& object, const std::string& object_name, const std::string& bucket_name);
  // Says whether the object exists and its bytes are those at `url`.
  bool IsStoredAt(const std::string& object_name, const std::string& bucket_name, const std::string& url);
  // Frees the stored bytes at a path; returns false when they are still there.
  using RemoveFile = std::function<bool(const std::string& path)>;
  // Returns true when the object is gone, also when it was not there before. Returns false and changes nothing when the
  // database refuses.
  // With `remove_file` the object's stored bytes are freed too, in one step with the row: an upload of that name
  // happens either wholly before or wholly after it. The function is called at most once, with what GetObjectFile
  // gives, and must not call the catalogue; when it refuses or throws, the object stays. The result is then false, or
  // the exception leaves this method. For an object whose bytes are stored in pieces the function is called for each of
  // them; then only the first call decides.
  bool RemoveObject(const std::string& object_name, const std::string& bucket_name, const RemoveFile& remove_file = {});
  // Removes the objects of all names that stand for these keys, in one transaction; their bytes stay. The keys are
  // given by their canonical names, of which there should be at most kKeysAtOnce, because writers of other keys may
  // have to wait meanwhile. kRemoved means that none of the names is there, also when none was before. With
  // `may_remove`, each key's object is asked for as with AddObject; when one is refused, nothing changes.
  enum class ERemoved { kRemoved, kRefused, kFailed };
  static constexpr std::size_t kKeysAtOnce = 128;
  ERemoved RemoveKeys(const std::vector<std::string>& names, const std::string& bucket_name,
                      const MayAdd& may_remove = {});
  // Gives the storage path behind an object's location text, for removal.
  bool GetObjectFile(std::string& path, const std::string& object_name, const std::string& bucket_name);

  bool AddObjectTask(ObjectTaskInfo& task);
  bool InsertObjectTask(ObjectTaskInfo& task);
  bool GetAllTask(const std::string& task_id, TaskPartSet& parts);
  bool GetTaskInfo(const std::string& task_id, std::uint32_t part_num, ObjectTaskInfo& part);
  // Returns 0 when the part exists with this size, 1 when the task is missing or belongs to another object, 2 when
  // there is no such part, 3 when the part has another size.
  int CheckTaskInfoExist(const ObjectTaskInfo& task);
  bool RemoveObjectTask(const std::string& task_id);
  bool HasTask(const std::string& task_id) { return IsTaskThere(task_id); }
  // Says which other node holds a task; the name is empty when none does.
  std::string FindOtherNodeOf(const std::string& task_id);
  // Maps each task id to the update time of the task's lowest-numbered part.
  bool GetTaskUpdateTime(std::map<std::string, std::string>& times);
  // Says how many seconds ago the lowest-numbered part of a task was written. A clock that nobody sets measures this; a
  // part that was written before this start begins with the age that it had then. Returns false when the age is not
  // known.
  bool GetTaskAge(const std::string& task_id, std::int64_t& seconds);

  // Returns true when this part is the first of its task to arrive and must be kept in a file; otherwise `part_size` is
  // the agreed size.
  // Fixed: docs/compatibility.md, "First parts of uploads".
  bool CheckPartSize(const std::string& task_id, std::uint32_t part_num, std::uint32_t size, std::uint32_t& part_size);
  bool SetFirstPartInfo(const std::string& task_id, const PartSizeInfo& info);
  // Gives the mutex of a task. Whoever stores a part of the task, completes it or sweeps it away locks this mutex first
  // and looks for the task only then. Returns false when there is no such task.
  bool GetPartFileMutex(const std::string& task_id, std::shared_ptr<std::mutex>& file_mutex);
  // Returns false while no part of the task has arrived.
  bool GetFirstPartInfo(const std::string& task_id, PartSizeInfo& info);
  // Puts back what was known before a part that was refused; a default record stands for nothing. The mutex stays.
  void RestorePartSize(const std::string& task_id, PartSizeInfo info);
  bool RemovePartSizeInfo(const std::string& task_id);

 private:
  friend class CSingleton<CObjectStorageManager>;
  CObjectStorageManager();
  ~CObjectStorageManager();

  // What a catalogue that several processes share needs on top.
  struct Shared;
  bool StartFollowing();
  bool FollowRound();
  bool LoadAnew();
  bool TakeIn(const CatalogueChange& change);
  void TakeInObject(const CatalogueChange& change);
  bool TakeInBuckets();
  // How many changes memory has taken in from the database so far; 0 in a catalogue that is not shared.
  std::uint64_t CountChanges() const;
  void WaitUntilVisible();
  void WhenVisible(const std::function<void()>& then);

  bool LoadBuckets();
  static bool LoadTable(CObjectTable& objects, const std::string& bucket_name);
  bool LoadObjects();
  bool LoadTasks();
  void LoadAges(std::time_t now);
  void RecoverPartSizes();
  void DropPartSizesOfEndedTasks();
  [[nodiscard]] std::unique_lock<std::mutex> LockBucketChanges();
  bool HasBucket(const std::string& name);
  bool IsNameTaken(const std::string& name);
  bool IsNameTakenByAnother(const BucketInfo& bucket);

  // A bucket with its objects; there is no table before the first one.
  struct Bucket {
    BucketInfo info;
    std::unique_ptr<CObjectTable> objects;
  };
  using BucketMap = std::map<std::string, Bucket>;
  static CObjectTable::Contents ContentsOf(const Bucket& bucket) {
    return bucket.objects == nullptr ? CObjectTable::Contents{} : bucket.objects->Count();
  }

  // There are many more locks than threads, so that writers of different keys seldom wait for each other's commit.
  using KeyLocks = CKeyLocks<1024>;
  using KeyLock = KeyLocks::Guard;

  // Locks the key that a name stands for.
  [[nodiscard]] KeyLock LockKey(const std::string& bucket_name, const std::string& object_name);

  static BucketMap::iterator FindBucketById(BucketMap& buckets, std::uint32_t id);
  // Gives the objects of a bucket; null when there is no such bucket or it never had one. To be called with
  // bucket_mutex_ held, which keeps the table.
  CObjectTable* TableOf(const std::string& bucket_name) const;
  bool FindObject(ObjectInfo& object, const std::string& object_name, const std::string& bucket_name);
  std::string NameInUse(const std::string& name, const std::string& bucket_name);
  using RowIds = std::map<std::string, std::uint32_t>;  // by the names of objects
  RowIds RowsOfKeys(const std::vector<std::string>& names, const std::string& bucket_name);
  bool MayRemoveAll(std::vector<ObjectInfo>& there, const std::vector<std::string>& names,
                    const std::string& bucket_name, const MayAdd& may_remove);
  ERemoved TryToRemoveKeys(const std::vector<std::string>& names, const std::string& bucket_name,
                           const MayAdd& may_remove, const details::Caller& caller);
  bool RemoveRows(const RowIds& rows, const std::string& bucket_name, const std::vector<ObjectInfo>& expected);
  bool IsBucketEmpty(const std::string& name);
  void ForgetObject(const std::string& object_name, const std::string& bucket_name) noexcept;
  void UndoRemoval(const ObjectInfo& object, const std::string& attributes) noexcept;
  bool PutRowBack(const ObjectInfo& object, const std::string& attributes);
  // An object on its way into the catalogue: BeginAdding, then the statement, then FinishAdding, with the key's lock
  // held all the time.
  struct Addition;
  bool BeginAdding(Addition& addition, const details::Caller& caller);
  EAdded BeginAdding(Addition& addition, const MayAdd& may_add, const details::Caller& caller);
  bool CommitNow(Addition& addition);
  void CommitLater(const std::shared_ptr<Addition>& addition, AddedOnTerms done, const details::Caller& caller);
  void AnswerWhenVisible(const std::shared_ptr<Addition>& addition, const AddedOnTerms& done, bool added,
                         const details::Caller& caller) noexcept;
  void Answer(const std::shared_ptr<Addition>& addition, const AddedOnTerms& done, bool added,
              const details::Caller& caller) noexcept;
  bool TryAgain(const std::shared_ptr<Addition>& addition, const AddedOnTerms& done,
                const details::Caller& caller) noexcept;
  EAdded FindWhyRefused(const Addition& addition) noexcept;
  bool FinishAdding(Addition& addition, bool committed, const details::Caller& caller) noexcept;
  void Publish(const std::string& bucket_name, CPackedObject::Pointer object,
               std::unique_ptr<CObjectTable> first_table = nullptr) noexcept;
  static constexpr std::uint32_t kNoRow = 0xFFFFFFFF;
  std::optional<std::uint32_t> FindPartId(const ObjectTaskInfo& part);
  void PublishPart(TaskPartSet::node_type part) noexcept;
  bool IsTaskThere(const std::string& task_id);
  void EndTask(const std::string& task_id);
  std::string RowNameById(std::uint32_t bucket_id);

  // What requests call some buckets, and what their rows and those of their objects do, in the same order.
  struct BucketNames {
    std::vector<std::string> in_memory;
    std::vector<std::string> in_rows;
  };
  BucketNames FindNames(const std::set<std::uint32_t>& ids, const details::Caller& caller);
  void ForgetBuckets(const BucketNames& names) noexcept;
  void ForgetObjects(const BucketNames& names) noexcept;

  std::atomic<bool> loaded_{false};
  std::unique_ptr<Shared> shared_;  // null when no other process changes the catalogue
  std::string node_;                // this process's name among those that do

  std::mutex bucket_changes_;  // held while a bucket is added, changed or removed, database included
  KeyLocks object_locks_;
  CKeyLocks<64> task_locks_;  // by task id

  // Locked by one thread to add, change or remove a bucket; shared by those who look at one or work on its objects.
  std::shared_mutex bucket_mutex_;
  BucketMap buckets_;

  std::mutex task_mutex_;
  std::map<std::string, TaskPartSet> tasks_;
  std::map<std::string, std::int64_t> task_births_;  // value of TimeUtil::Uptime at the write, also for earlier runs

  static constexpr std::size_t kPartSizesToSpare = 1024;
  std::mutex part_size_mutex_;
  std::map<std::string, PartSizeInfo> part_sizes_;
  std::size_t drop_part_sizes_at_ = kPartSizesToSpare;  // at this number they are searched for ended tasks
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_STORAGE_MANAGER_H
