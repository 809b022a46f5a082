// The catalogue's objects.
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/KeyOrder.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/PieceList.h"
#include "TansyBase/StringUtil.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// Whoever overwrites an object in the database updates it, also where it came as a new one.
void LogFailedUpdate(const std::string& object_name) {
  constexpr Caller kUpdate{"Tansy::CloudStorage::CObjectStorageManager::UpdateObject", __FILE__, __LINE__};
  CLOUD_LOG_FOR(kUpdate, logging::kError, "[%s]update Object[%s] failed, db operate failed.[%s(%d)]",
                object_name.c_str());
}

// Location texts that name a file end with this suffix, and begin with the key of their volume.
constexpr std::string_view kFileSuffix = ".d";
constexpr std::size_t kVolumeKeyLength = 4;

// Turns the location text of a stored file into its path: the volume's path behind the first four characters, then the
// rest with its dashes as separators.
bool ResolveFilePath(std::string& path, const std::string& url) {
  if (!url.ends_with(kFileSuffix) || IsPieceList(url)) {
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

std::vector<std::string> FilesOfPieces(const std::string& url) {
  std::vector<std::string> files;
  for (const Piece& piece : ReadPieceList(url)) {
    if (std::string path; ResolveFilePath(path, piece.url)) {
      files.push_back(std::move(path));
    }
  }
  return files;
}

bool RemoveAnother(const std::string& file, const CObjectStorageManager::RemoveFile& remove_file) {
  try {
    return remove_file(file);
  } catch (const std::exception&) {
    return false;
  }
}

// Returns false, or throws, when nothing was removed. Once a file is gone, the object cannot stay; what is then left of
// the others belongs to no object and can be found and freed.
bool RemoveFiles(const std::vector<std::string>& files, const CObjectStorageManager::RemoveFile& remove_file) {
  if (files.empty()) {
    return true;
  }
  if (!remove_file(files.front())) {
    return false;
  }
  for (std::size_t i = 1; i < files.size(); ++i) {
    if (!RemoveAnother(files[i], remove_file)) {
      CLOUD_LOG(logging::kError, "[%s]remove file[%s] failed.[%s(%d)]", files[i].c_str());
    }
  }
  return true;
}

}  // namespace
}  // namespace details

CObjectTable* CObjectStorageManager::TableOf(const std::string& bucket_name) const {
  const auto bucket = buckets_.find(bucket_name);
  return bucket != buckets_.end() ? bucket->second.objects.get() : nullptr;
}

// All memory is there before the statement is: once it is committed, lack of memory must not keep memory and database
// from agreeing.
struct CObjectStorageManager::Addition {
  explicit Addition(const ObjectInfo& added, ObjectExtras with = {}) : object(added), extras(std::move(with)) {}

  ObjectInfo object;  // as requests see it
  ObjectInfo row;     // with the name that rows use for the bucket
  ObjectExtras extras;
  MayAdd may_add;  // asked again when the row was refused; only in a catalogue that is shared
  bool is_new = false;
  bool replaces = false;      // whatever row has that name by then, in a catalogue that is shared
  int tries_left = 100;       // while other processes change the object again and again
  int blind_tries_left = 3;   // while memory does not show why the database has refused it
  std::uint64_t changes = 0;  // of CountChanges, when the condition was asked
  CPackedObject::Pointer packed;
  std::unique_ptr<CObjectTable> first_table;
  std::optional<KeyLock> key;
};

bool CObjectStorageManager::AddObject(ObjectInfo& object, const std::string& ended_task) {
  Addition addition(object, {ended_task, {}});
  addition.key.emplace(LockKey(object.bucket_name, object.name));
  if (!BeginAdding(addition, CLOUD_LOG_CALLER)) {
    return false;
  }
  const bool committed = CommitNow(addition);
  if (!FinishAdding(addition, committed, CLOUD_LOG_CALLER)) {
    return false;
  }
  object.id = addition.row.id;
  EndTask(ended_task);
  WaitUntilVisible();
  return true;
}

void CObjectStorageManager::AddObject(const ObjectInfo& object, Added done) {
  const auto addition = std::make_shared<Addition>(object);
  addition->key.emplace(LockKey(object.bucket_name, object.name));
  if (!BeginAdding(*addition, CLOUD_LOG_CALLER)) {
    done(false);
    return;
  }
  CommitLater(
      addition, [done = std::move(done)](EAdded result) { done(result == EAdded::kAdded); }, CLOUD_LOG_CALLER);
}

void CObjectStorageManager::AddObject(const ObjectInfo& object, const ObjectExtras& extras, const MayAdd& may_add,
                                      AddedOnTerms done) {
  const auto addition = std::make_shared<Addition>(object, extras);
  if (const EAdded begun = BeginAdding(*addition, may_add, CLOUD_LOG_CALLER); begun != EAdded::kAdded) {
    addition->key.reset();
    done(begun);
    return;
  }
  CommitLater(addition, std::move(done), CLOUD_LOG_CALLER);
}

void CObjectStorageManager::CommitLater(const std::shared_ptr<Addition>& addition, AddedOnTerms done,
                                        const details::Caller& caller) {
  auto finish = [this, addition, done = std::move(done), caller](bool committed) {
    const bool added = FinishAdding(*addition, committed, caller);
    if (added && !addition->extras.ended_task.empty()) {
      EndTask(addition->extras.ended_task);
    }
    if (added || !addition->may_add) {
      addition->key.reset();  // otherwise it may be tried again
    }
    if (shared_) {
      AnswerWhenVisible(addition, done, added, caller);
      return;
    }
    addition->key.reset();
    done(added ? EAdded::kAdded : EAdded::kFailed);
  };
  if (addition->is_new) {
    CObjectServerSession::CreateObject(addition->row, addition->extras, std::move(finish));
  } else if (addition->replaces) {
    CObjectServerSession::PutObject(addition->row, addition->extras, std::move(finish));
  } else {
    CObjectServerSession::UpdateObject(addition->row, addition->extras, std::move(finish));
  }
}

bool CObjectStorageManager::CommitNow(Addition& addition) {
  if (addition.is_new) {
    return CObjectServerSession::CreateObject(addition.row, addition.extras);
  }
  return addition.replaces ? CObjectServerSession::PutObject(addition.row, addition.extras)
                           : CObjectServerSession::UpdateObject(addition.row, addition.extras);
}

void CObjectStorageManager::Answer(const std::shared_ptr<Addition>& addition, const AddedOnTerms& done, bool added,
                                   const details::Caller& caller) noexcept {
  if (!added && TryAgain(addition, done, caller)) {
    return;
  }
  addition->key.reset();
  done(added ? EAdded::kAdded : FindWhyRefused(*addition));
}

// Another process may have changed the object since it was looked at, and the condition may hold all the same. Returns
// false when that is not why the database has refused it. An object that came and went since then has left no trace but
// the count of changes.
bool CObjectStorageManager::TryAgain(const std::shared_ptr<Addition>& addition, const AddedOnTerms& done,
                                     const details::Caller& caller) noexcept {
  try {
    const std::uint64_t changes = CountChanges();
    ObjectInfo there;
    std::string attributes;
    const bool is_there = FindObject(there, attributes, addition->object.name, addition->object.bucket_name);
    const bool is_other = there.url != addition->extras.expected_url;
    const bool may_be_overtaken = is_other || (changes != addition->changes && addition->blind_tries_left-- > 0);
    if (!addition->may_add || !may_be_overtaken || addition->tries_left-- == 0 ||
        !addition->may_add(is_there ? &there : nullptr, attributes)) {
      return false;
    }
    addition->changes = changes;
    addition->extras.expected_url = there.url;
    addition->row.id = is_there ? there.id : addition->row.id;
    addition->is_new = false;
    addition->replaces = !is_there || there.url != addition->object.url;
    CommitLater(addition, done, caller);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// Only a condition that no longer holds is a refusal. The follower's thread asks here, which must not end because
// memory is short.
CObjectStorageManager::EAdded CObjectStorageManager::FindWhyRefused(const Addition& addition) noexcept {
  try {
    ObjectInfo there;
    std::string attributes;
    const bool is_there = FindObject(there, attributes, addition.object.name, addition.object.bucket_name);
    const bool is_refused = addition.may_add && !addition.may_add(is_there ? &there : nullptr, attributes);
    return is_refused ? EAdded::kRefused : EAdded::kFailed;
  } catch (const std::bad_alloc&) {
    return EAdded::kFailed;
  }
}

CObjectStorageManager::EAdded CObjectStorageManager::BeginAdding(Addition& addition, const MayAdd& may_add,
                                                                 const details::Caller& caller) {
  const std::string bucket_name = addition.object.bucket_name;
  std::string& name = addition.object.name;
  addition.key.emplace(LockKey(bucket_name, name));
  // Another process may just have stored the first object of this key, under another name.
  if (may_add || HasUsualSpellings(name)) {
    CatchUp();
  }
  name = NameInUse(name, bucket_name);
  if (!BeginAdding(addition, caller)) {
    return EAdded::kFailed;
  }
  if (!may_add) {
    return EAdded::kAdded;
  }
  addition.changes = CountChanges();
  ObjectInfo there;
  std::string attributes;
  const bool is_there = FindObject(there, attributes, name, bucket_name);
  if (shared_) {
    addition.may_add = may_add;
    addition.extras.expected_url = there.url;
  }
  if (shared_ && is_there && there.url == addition.object.url) {
    // Bytes that stay keep their row, which has not changed when the statement runs.
    addition.row.id = there.id;
    addition.is_new = addition.replaces = false;
  }
  return may_add(is_there ? &there : nullptr, attributes) ? EAdded::kAdded : EAdded::kRefused;
}

// Its key is locked.
bool CObjectStorageManager::BeginAdding(Addition& addition, const details::Caller& caller) {
  const ObjectInfo& object = addition.object;
  if (!IsBucketExist(object.bucket_name)) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]Add Object[%s] failed, bucket[%s] not exist.[%s(%d)]",
                  object.name.c_str(), object.bucket_name.c_str());
    return false;
  }
  ObjectInfo stored;
  // What others have added meanwhile is replaced by the statement, so memory need not catch up for it.
  addition.is_new = shared_ ? !FindObject(stored, object.name, object.bucket_name)
                            : !GetObjectByName(stored, object.name, object.bucket_name);
  if (!addition.is_new) {
    addition.object.id = stored.id;
  }
  addition.replaces = shared_ && !addition.is_new;
  addition.packed = CPackedObject::Make(object, addition.extras.attributes);
  addition.row = object;
  addition.row.bucket_name = RowName(object.bucket_name);
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  if (TableOf(object.bucket_name) == nullptr) {
    addition.first_table = std::make_unique<CObjectTable>();
  }
  return true;
}

bool CObjectStorageManager::FinishAdding(Addition& addition, bool committed, const details::Caller& caller) noexcept {
  const ObjectInfo& object = addition.object;
  if (committed && shared_) {
    return true;  // it comes into memory with the other changes
  }
  if (committed) {
    addition.packed->SetId(addition.row.id);
    Publish(object.bucket_name, std::move(addition.packed), std::move(addition.first_table));
  } else if (addition.is_new) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]Add object[%s] failed, db operation failed.[%s(%d)]",
                  object.name.c_str());
  } else {
    details::LogFailedUpdate(object.name);
  }
  return committed;
}

// Lets look-ups find an object whose row is there. The lock of its key keeps the bucket.
void CObjectStorageManager::Publish(const std::string& bucket_name, CPackedObject::Pointer object,
                                    std::unique_ptr<CObjectTable> first_table) noexcept {
  if (first_table) {
    const std::lock_guard<std::shared_mutex> lock(bucket_mutex_);
    std::unique_ptr<CObjectTable>& table = buckets_.find(bucket_name)->second.objects;
    if (!table) {  // otherwise a writer of another key was first
      table = std::move(first_table);
    }
  }
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  TableOf(bucket_name)->Put(std::move(object));
}

bool CObjectStorageManager::UpdateObject(ObjectInfo& object, const std::string& ended_task) {
  if (shared_) {
    return AddObject(object, ended_task);
  }
  const auto name_lock = LockKey(object.bucket_name, object.name);
  {
    const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
    const CObjectTable* const table = TableOf(object.bucket_name);
    if (table == nullptr) {
      CLOUD_LOG(logging::kError, "[%s]update Object[%s] failed, bucket[%s] not exist.[%s(%d)]", object.name.c_str(),
                object.bucket_name.c_str());
      return false;
    }
    if (!table->Find(object.name, [&object](const CPackedObject& stored) { object.id = stored.Id(); })) {
      CLOUD_LOG(logging::kError, "[%s]update Object[%s] failed, object not exist.[%s(%d)]", object.name.c_str());
      return false;
    }
  }
  CPackedObject::Pointer replacement = CPackedObject::Make(object);
  if (!CObjectServerSession::UpdateObject(object, {ended_task, {}})) {
    details::LogFailedUpdate(object.name);
    return false;
  }
  Publish(object.bucket_name, std::move(replacement));
  return true;
}

bool CObjectStorageManager::GetObjectByName(ObjectInfo& object, const std::string& object_name,
                                            const std::string& bucket_name) {
  if (!IsBucketExist(bucket_name)) {
    CLOUD_LOG(logging::kError, "[%s]get Object[%s] failed, bucket[%s] not exist.[%s(%d)]", object_name.c_str(),
              bucket_name.c_str());
    return false;
  }
  if (!FindObject(object, object_name, bucket_name) && !(CatchUp() && FindObject(object, object_name, bucket_name))) {
    CLOUD_LOG(logging::kError, "[%s]get Object[%s] failed, object not exist.[%s(%d)]", object_name.c_str());
    return false;
  }
  return true;
}

bool CObjectStorageManager::GetObjectAtRest(ObjectInfo& object, const std::string& object_name,
                                            const std::string& bucket_name) {
  const auto name_lock = LockKey(bucket_name, object_name);
  CatchUp();
  return GetObjectByName(object, object_name, bucket_name);
}

bool CObjectStorageManager::FindObject(ObjectInfo& object, const std::string& object_name,
                                       const std::string& bucket_name) {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  const CObjectTable* const table = TableOf(bucket_name);
  const auto copy = [&object, &bucket_name](const CPackedObject& stored) {
    stored.CopyTo(object);
    object.bucket_name = bucket_name;
  };
  return table != nullptr && table->Find(object_name, copy);
}

bool CObjectStorageManager::FindObject(ObjectInfo& object, std::string& attributes, const std::string& object_name,
                                       const std::string& bucket_name) {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  const CObjectTable* const table = TableOf(bucket_name);
  const auto copy = [&](const CPackedObject& stored) {
    stored.CopyTo(object);
    attributes = stored.Attributes();
    object.bucket_name = bucket_name;
  };
  return table != nullptr && table->Find(object_name, copy);
}

// The locks are given back after each of the batches, because writers wait for them.
void CObjectStorageManager::ShowObjectsFrom(const std::string& from, bool with_key, const std::string& bucket_name,
                                            const ObjectLook& look) {
  constexpr int kBatch = 64;
  std::string last = from;
  for (bool has_more = true; has_more; with_key = false) {
    int left = kBatch;
    has_more = false;
    std::string next;
    const auto show = [&](const CPackedObject& stored) {
      const bool goes_on = look(stored);
      has_more = goes_on && --left == 0;
      if (has_more) {
        next = stored.Name();
      }
      return goes_on && left > 0;
    };
    const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
    if (const CObjectTable* const table = TableOf(bucket_name)) {
      table->ShowFrom(last, with_key, show);
    }
    last.swap(next);
  }
}

bool CObjectStorageManager::FillInAttributes(const ObjectInfo& object, const std::string& attributes) {
  if (shared_) {
    ObjectInfo row = object;
    row.bucket_name = RowName(object.bucket_name);
    const bool is_written = CObjectServerSession::FillInAttributes(row, attributes);
    WaitUntilVisible();
    return is_written;
  }
  const auto name_lock = LockKey(object.bucket_name, object.name);
  ObjectInfo stored;
  std::string there;
  if (!FindObject(stored, there, object.name, object.bucket_name) || stored.url != object.url || !there.empty()) {
    return true;
  }
  CPackedObject::Pointer packed = CPackedObject::Make(stored, attributes);
  if (!CObjectServerSession::SetAttributes(stored.id, attributes)) {
    CLOUD_LOG(logging::kError, "[%s]attributes of object[%s] cannot be written.[%s(%d)]", object.name.c_str());
    return false;
  }
  Publish(object.bucket_name, std::move(packed));
  return true;
}

bool CObjectStorageManager::LoadAttributes() {
  if (shared_) {
    return true;  // they come with the objects
  }
  const auto take = [this](const ObjectInfo& row, std::string_view attributes) {
    const auto name_lock = LockKey(row.bucket_name, row.name);
    ObjectInfo stored;
    if (FindObject(stored, row.name, row.bucket_name) && details::PieceOwnerOf(stored.url) == row.url) {
      Publish(row.bucket_name, CPackedObject::Make(stored, attributes));
    }
  };
  return CObjectServerSession::QueryAttributes(take);
}

bool CObjectStorageManager::IsStoredAt(const std::string& object_name, const std::string& bucket_name,
                                       const std::string& url) {
  bool is_there = false;
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  const CObjectTable* const table = TableOf(bucket_name);
  return table != nullptr &&
         table->Find(object_name, [&](const CPackedObject& stored) { is_there = stored.Url() == url; }) && is_there;
}

bool CObjectStorageManager::RemoveObject(const std::string& object_name, const std::string& bucket_name,
                                         const RemoveFile& remove_file) {
  // The removal must not come between the look-up and the update of an upload of the same name, because the upload
  // would then fail for no good reason and leave its bytes behind.
  const auto name_lock = LockKey(bucket_name, object_name);
  std::vector<std::string> files;
  if (std::string path; remove_file && GetObjectFile(path, object_name, bucket_name)) {
    files.push_back(std::move(path));
  }
  ObjectInfo object;
  std::string attributes;
  // Others may have stored an object that is not known here yet.
  if (!FindObject(object, attributes, object_name, bucket_name) && !shared_) {
    return true;
  }
  if (remove_file && details::IsPieceList(object.url)) {
    files = details::FilesOfPieces(object.url);
  }
  // The row is removed first: bytes without a row can be found and freed, but a row without bytes is an object that
  // cannot be read.
  const bool is_removed = shared_ ? CObjectServerSession::DeleteObject(RowName(bucket_name), object_name)
                                  : CObjectServerSession::DeleteObject(object.id);
  if (!is_removed) {
    CLOUD_LOG(logging::kError, "[%s]remove object[%s] failed, db operation failed.[%s(%d)]", object_name.c_str());
    return false;
  }
  if (shared_) {
    // Others may have stored an object of that name by now, so the row is not put back. Bytes that stay are freed
    // later.
    details::RemoveFiles(files, remove_file);
    WaitUntilVisible();
    return true;
  }
  try {
    if (!details::RemoveFiles(files, remove_file)) {
      UndoRemoval(object, attributes);
      return false;
    }
  } catch (...) {
    // The host's storage threw, or memory ran out.
    UndoRemoval(object, attributes);
    throw;
  }
  ForgetObject(object_name, bucket_name);
  return true;
}

// Called after the row is removed. Puts the row back; where that fails, it removes the object from memory too, and no
// row names its bytes any more.
void CObjectStorageManager::UndoRemoval(const ObjectInfo& object, const std::string& attributes) noexcept {
  bool is_back = false;
  try {
    is_back = PutRowBack(object, attributes);
  } catch (const std::exception&) {
    is_back = false;  // out of memory; nothing is thrown once the row is there
  }
  if (!is_back) {
    ForgetObject(object.name, object.bucket_name);
  }
}

// Undoes the removal of a row; the new row has an id of its own. Returns false when the database refuses.
bool CObjectStorageManager::PutRowBack(const ObjectInfo& object, const std::string& attributes) {
  ObjectInfo row = object;
  row.bucket_name = RowName(object.bucket_name);
  if (!CObjectServerSession::CreateObject(row, {{}, attributes})) {
    CLOUD_LOG(logging::kError, "[%s]put back object[%s] failed, db operation failed.[%s(%d)]", object.name.c_str());
    return false;
  }
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  TableOf(object.bucket_name)->SetId(object.name, row.id);
  return true;
}

void CObjectStorageManager::ForgetObject(const std::string& object_name, const std::string& bucket_name) noexcept {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  if (CObjectTable* const table = TableOf(bucket_name)) {
    table->Remove(object_name);
  }
}

bool CObjectStorageManager::GetObjectFile(std::string& path, const std::string& object_name,
                                          const std::string& bucket_name) {
  std::string url;
  {
    const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
    const CObjectTable* const table = TableOf(bucket_name);
    if (table == nullptr) {
      CLOUD_LOG(logging::kError, "[%s]Object not exist.object_name %s,bucket_name %s[%s(%d)]", object_name.c_str(),
                bucket_name.c_str());
      return false;
    }
    if (!table->Find(object_name, [&url](const CPackedObject& stored) { url = stored.Url(); })) {
      return false;
    }
  }
  // The volumes change nothing in the catalogue, so they are asked without holding up its readers.
  return details::ResolveFilePath(path, url);
}

}  // namespace Tansy::CloudStorage
