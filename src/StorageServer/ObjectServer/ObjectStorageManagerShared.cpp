// What the catalogue does when several processes share it: memory follows the database's log of changes.
#include <atomic>
#include <exception>
#include <new>
#include <utility>

#include "ModuleLog.h"
#include "OSAL/Osal.h"
#include "StorageServer/ObjectServer/BaseDBConn.h"
#include "StorageServer/ObjectServer/CatalogueAway.h"
#include "StorageServer/ObjectServer/CatalogueFollower.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "TansyBase/SingleBaseThread.h"
#include "TansyBase/TimeUtil.h"
#include "db_layer/SharedDatabase.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// The database may be silent for so long. It is longer than memory may be behind, and shorter than a client waits.
constexpr int kSilenceMs = 3000;
constexpr int kChangesAtOnce = 1000;

// Wakes the follower when another process has changed something. What it misses is found at the follower's next round.
class CChangeListener final : public TansyBase::CSingleBaseThread {
 public:
  explicit CChangeListener(CCatalogueFollower& follower)
      : CSingleBaseThread("tansy-listen"), follower_(follower), ear_(CBaseDBLayerConn::Instance().MakeEar(kSilenceMs)) {
    Start(kBetweenMs);
  }
  ~CChangeListener() override { Stop(); }

 private:
  static constexpr std::uint32_t kBetweenMs = 1;
  static constexpr std::chrono::milliseconds kPatience{200};
  static constexpr std::uint32_t kPauseMs = 200;

  void OnTimer() override {
    bool heard = false;
    std::string error;
    const bool listens = ear_->Hear("tansy_changes", kPatience, heard, error);
    if (heard) {
      follower_.Wake();
    }
    if (!listens) {
      OSAL_Sleep(kPauseMs);
    }
  }

  CCatalogueFollower& follower_;
  const std::unique_ptr<db_layer::IDatabaseEar> ear_;
};

}  // namespace
}  // namespace details

struct CObjectStorageManager::Shared {
  // The follower's thread alone uses these two.
  std::unique_ptr<db_layer::IDatabaseEar> ear;
  ChangePosition position;
  bool is_loaded = false;

  std::atomic<std::uint64_t> changes{0};         // that memory has taken in
  std::unique_ptr<CCatalogueFollower> follower;  // null until Init
  std::unique_ptr<details::CChangeListener> listener;
};

CObjectStorageManager::CObjectStorageManager() = default;
CObjectStorageManager::~CObjectStorageManager() = default;

void CObjectStorageManager::Share(const std::string& node) {
  if (shared_) {
    shared_->listener.reset();
    shared_->follower.reset();
  }
  shared_.reset();
  node_ = node;
  if (!node.empty()) {
    shared_ = std::make_unique<Shared>();
  }
}

bool CObjectStorageManager::StartFollowing() {
  shared_->listener.reset();
  shared_->follower.reset();
  shared_->is_loaded = false;
  shared_->ear = CBaseDBLayerConn::Instance().MakeEar(details::kSilenceMs);
  if (!shared_->ear) {
    CLOUD_LOG(logging::kError, "[%s]Init failed, this database cannot be shared.[%s(%d)]");
    return false;
  }
  if (!LoadTasks()) {
    CLOUD_LOG(logging::kError, "[%s]Init failed, query object task failed.[%s(%d)]");
    return false;
  }
  RecoverPartSizes();
  // The first round is made here, because it may take as long as there are objects.
  if (!FollowRound()) {
    CLOUD_LOG(logging::kError, "[%s]Init failed, query bucket failed.[%s(%d)]");
    return false;
  }
  const auto round = [this] {
    try {
      return FollowRound();
    } catch (const std::exception& error) {
      CLOUD_LOG(logging::kError, "[%s]changes of the catalogue cannot be taken in: %s.[%s(%d)]", error.what());
      return false;
    }
  };
  shared_->follower = std::make_unique<CCatalogueFollower>(round, CCatalogueFollower::Times());
  shared_->listener = std::make_unique<details::CChangeListener>(*shared_->follower);
  shared_->follower->CatchUp();
  return true;
}

// Brings memory up to the database as it is when this begins, or later.
bool CObjectStorageManager::FollowRound() {
  bool finds_place = false;  // the entry that memory stands at is still there
  int count = 0;
  do {
    if (!shared_->is_loaded && !LoadAnew()) {
      return false;
    }
    finds_place = false;
    count = 0;
    bool is_taken_in = true;
    const ChangePosition from = shared_->position;
    const auto take = [&](const CatalogueChange& change) {
      if (count++ == 0) {
        finds_place = change.position.seq == from.seq && change.position.mark == from.mark;
      } else if (finds_place && is_taken_in) {
        is_taken_in = TakeIn(change);
      }
    };
    if (!CObjectServerSession::QueryChanges(*shared_->ear, from, details::kChangesAtOnce, take) || !is_taken_in) {
      return false;
    }
    if (!finds_place) {
      // The log begins later by now, or the database has lost what memory has seen of it.
      CLOUD_LOG(logging::kNotable, "[%s]the catalogue is loaded anew, its log of changes has no entry %lld.[%s(%d)]",
                static_cast<long long>(from.seq));
      shared_->is_loaded = false;
    }
  } while (!finds_place || count > details::kChangesAtOnce);
  return true;
}

// What changes while this reads is read once more: it comes behind the entry that was the newest before.
bool CObjectStorageManager::LoadAnew() {
  ChangePosition newest;
  std::map<std::string, BucketInfo> rows;
  if (!CObjectServerSession::GetLastChange(*shared_->ear, newest) || !CObjectServerSession::QueryBucket(rows)) {
    return false;
  }
  if (newest.seq == 0) {
    CLOUD_LOG(logging::kError, "[%s]the log of changes is empty.[%s(%d)]");
    return false;
  }
  BucketMap fresh;
  for (auto& [name, info] : rows) {
    auto objects = std::make_unique<CObjectTable>();
    const CObjectServerSession::AttributesVisitor take = [&objects](const ObjectInfo& object,
                                                                    std::string_view attributes) {
      objects->Add(CPackedObject::Make(object, attributes));
    };
    if (!CObjectServerSession::QueryObject(take, name)) {
      return false;
    }
    fresh.try_emplace(name, Bucket{std::move(info), std::move(objects)});
  }
  {
    const std::lock_guard<std::shared_mutex> lock(bucket_mutex_);
    buckets_.swap(fresh);
  }
  shared_->position = newest;
  shared_->is_loaded = true;
  ++shared_->changes;
  return true;
}

bool CObjectStorageManager::TakeIn(const CatalogueChange& change) {
  if (!change.is_object) {
    if (!TakeInBuckets()) {
      return false;
    }
  } else if (change.is_there) {
    TakeInObject(change);
  } else {
    ForgetObject(change.object.name, change.object.bucket_name);
  }
  shared_->position = change.position;
  ++shared_->changes;
  return true;
}

std::uint64_t CObjectStorageManager::CountChanges() const {
  return shared_ ? shared_->changes.load() : 0;
}

// An object without a bucket is one whose bucket was removed later; its rows are gone by now.
void CObjectStorageManager::TakeInObject(const CatalogueChange& change) {
  CPackedObject::Pointer packed = CPackedObject::Make(change.object, change.attributes);
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  if (CObjectTable* const table = TableOf(change.object.bucket_name)) {
    table->Put(std::move(packed));
  }
}

// There are few buckets, so all are read. One that was removed and made again has another id, and no object of before.
bool CObjectStorageManager::TakeInBuckets() {
  std::map<std::string, BucketInfo> rows;
  if (!CObjectServerSession::QueryBucket(rows)) {
    return false;
  }
  BucketMap fresh;  // what is gone is freed after the lock
  for (auto& [name, info] : rows) {
    fresh.try_emplace(name, Bucket{std::move(info), std::make_unique<CObjectTable>()});
  }
  const std::lock_guard<std::shared_mutex> lock(bucket_mutex_);
  for (auto& [name, bucket] : fresh) {
    const auto there = buckets_.find(name);
    if (there != buckets_.end() && there->second.info.id == bucket.info.id) {
      bucket.objects.swap(there->second.objects);
    }
  }
  buckets_.swap(fresh);
  return true;
}

bool CObjectStorageManager::CatchUp() {
  if (!shared_) {
    return false;
  }
  if (!shared_->follower || !shared_->follower->CatchUp()) {
    throw CCatalogueAway();
  }
  return true;
}

void CObjectStorageManager::ExpectFresh() {
  if (shared_ && !(shared_->follower && shared_->follower->IsFresh())) {
    CatchUp();
  }
}

bool CObjectStorageManager::GetTimeOfRows(std::time_t& time) {
  time = TansyBase::TimeUtil::Now();
  return !shared_ || CObjectServerSession::GetDatabaseTime(time);
}

bool CObjectStorageManager::IsFirst() {
  std::string first;
  return !shared_ || (CObjectServerSession::GetFirstNode(first) && first == node_);
}

// Returns when every later look-up of this process sees what was committed before, or gets no answer.
void CObjectStorageManager::WaitUntilVisible() {
  while (shared_ && shared_->follower && !shared_->follower->CatchUp() && shared_->follower->IsFresh()) {
  }
}

void CObjectStorageManager::WhenVisible(const std::function<void()>& then) {
  try {
    shared_->follower->WhenCaughtUp(then);
  } catch (const std::exception&) {
    WaitUntilVisible();  // out of memory
    then();
  }
}

// What a condition was about may have changed meanwhile, and memory says so once it has caught up.
void CObjectStorageManager::AnswerWhenVisible(const std::shared_ptr<Addition>& addition, const AddedOnTerms& done,
                                              bool added, const details::Caller& caller) noexcept {
  try {
    WhenVisible([this, addition, done, added, caller] { Answer(addition, done, added, caller); });
  } catch (const std::bad_alloc&) {
    WaitUntilVisible();
    Answer(addition, done, added, caller);
  }
}

std::string CObjectStorageManager::FindOtherNodeOf(const std::string& task_id) {
  std::string node;
  if (!shared_) {
    return node;
  }
  if (!CObjectServerSession::GetTaskNode(node, task_id)) {
    throw CCatalogueAway();
  }
  return node == node_ ? std::string() : node;
}

}  // namespace Tansy::CloudStorage
