// Which object a key has. The object protocol stores any name as it is sent, so several names may stand for one key.
#include <algorithm>
#include <string_view>
#include <utility>

#include "ModuleLog.h"
#include "StorageServer/ObjectServer/KeyOrder.h"
#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/ObjectServer/PieceList.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr int kRemovalTries = 100;

// Shows the object that a key has to `look`; returns false when it has none. `table` may be null.
template <class Look>
bool ShowObjectOfKey(const CObjectTable* table, const std::string& name, Look look) {
  if (table == nullptr) {
    return false;
  }
  bool is_found = table->Find(name, look);
  if (!is_found) {
    table->FindFrom(name, true, [&](const CPackedObject& first) {
      is_found = CompareKeys(first.Name(), name) == 0;
      if (is_found) {
        look(first);
      }
    });
  }
  return is_found;
}

}  // namespace
}  // namespace details

CObjectStorageManager::KeyLock CObjectStorageManager::LockKey(const std::string& bucket_name,
                                                              const std::string& object_name) {
  // Most names are their own keys.
  const bool is_key = object_name.find('%') == std::string::npos;
  return object_locks_.Lock(bucket_name, is_key ? object_name : KeyOfName(object_name));
}

bool CObjectStorageManager::FindObjectOfKey(ObjectInfo& object, std::string& attributes, const std::string& name,
                                            const std::string& bucket_name) {
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  return details::ShowObjectOfKey(TableOf(bucket_name), name, [&](const CPackedObject& stored) {
    stored.CopyTo(object);
    attributes = stored.Attributes();
    object.bucket_name = bucket_name;
  });
}

// Gives the name under which an object of this key is to be stored. The key's lock keeps it.
std::string CObjectStorageManager::NameInUse(const std::string& name, const std::string& bucket_name) {
  std::string used = name;
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  details::ShowObjectOfKey(TableOf(bucket_name), name, [&used](const CPackedObject& stored) { used = stored.Name(); });
  return used;
}

CObjectStorageManager::RowIds CObjectStorageManager::RowsOfKeys(const std::vector<std::string>& names,
                                                                const std::string& bucket_name) {
  RowIds rows;
  const std::shared_lock<std::shared_mutex> lock(bucket_mutex_);
  const CObjectTable* const table = TableOf(bucket_name);
  if (table == nullptr) {
    return rows;
  }
  for (const std::string& name : names) {
    table->ShowFrom(name, true, [&](const CPackedObject& stored) {
      const bool is_of_key = CompareKeys(stored.Name(), name) == 0;
      if (is_of_key) {
        rows.emplace(stored.Name(), stored.Id());
      }
      return is_of_key;
    });
  }
  return rows;
}

// Asks about the object of each key, and gives those that are there.
bool CObjectStorageManager::MayRemoveAll(std::vector<ObjectInfo>& there, const std::vector<std::string>& names,
                                         const std::string& bucket_name, const MayAdd& may_remove) {
  for (const std::string& name : names) {
    ObjectInfo object;
    std::string attributes;
    const bool is_there = FindObjectOfKey(object, attributes, name, bucket_name);
    if (!may_remove(is_there ? &object : nullptr, attributes)) {
      return false;
    }
    if (is_there) {
      there.push_back(std::move(object));
    }
  }
  return true;
}

bool CObjectStorageManager::RemoveRows(const RowIds& rows, const std::string& bucket_name,
                                       const std::vector<ObjectInfo>& expected) {
  std::vector<std::uint32_t> ids;
  std::vector<std::string> names;
  for (const auto& [name, id] : rows) {
    ids.push_back(id);
    names.push_back(name);
  }
  // The id of an object that another process has replaced is another one by now.
  return shared_ ? CObjectServerSession::DeleteObjects(RowName(bucket_name), names, expected)
                 : CObjectServerSession::DeleteObjects(ids);
}

CObjectStorageManager::ERemoved CObjectStorageManager::RemoveKeys(const std::vector<std::string>& names,
                                                                  const std::string& bucket_name,
                                                                  const MayAdd& may_remove) {
  std::vector<std::string> keys(names.size());
  std::transform(names.begin(), names.end(), keys.begin(), [](const std::string& name) { return KeyOfName(name); });
  const auto key_locks = object_locks_.Lock(bucket_name, std::vector<std::string_view>(keys.begin(), keys.end()));
  // Another process may change an object behind the look at it, and the condition may hold all the same.
  ERemoved removed = ERemoved::kFailed;
  bool may_be_overtaken = true;
  for (int left = details::kRemovalTries; removed == ERemoved::kFailed && may_be_overtaken && left > 0; --left) {
    const std::uint64_t changes = CountChanges();
    removed = TryToRemoveKeys(names, bucket_name, may_remove, CLOUD_LOG_CALLER);
    may_be_overtaken = may_remove && CountChanges() != changes;
  }
  return removed;
}

// The keys are locked.
CObjectStorageManager::ERemoved CObjectStorageManager::TryToRemoveKeys(const std::vector<std::string>& names,
                                                                       const std::string& bucket_name,
                                                                       const MayAdd& may_remove,
                                                                       const details::Caller& caller) {
  RowIds rows = RowsOfKeys(names, bucket_name);
  // Another process may just have stored objects of these keys.
  const bool may_be_more = rows.size() < names.size() || std::any_of(names.begin(), names.end(), HasUsualSpellings);
  if ((may_remove || may_be_more) && CatchUp()) {
    rows = RowsOfKeys(names, bucket_name);
  }
  std::vector<ObjectInfo> there;
  if (may_remove && !MayRemoveAll(there, names, bucket_name, may_remove)) {
    return ERemoved::kRefused;
  }
  if (rows.empty()) {
    return ERemoved::kRemoved;
  }
  const bool is_removed = RemoveRows(rows, bucket_name, there);
  WaitUntilVisible();
  if (!is_removed) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]remove object[%s] failed, db operation failed.[%s(%d)]",
                  rows.begin()->first.c_str());
    // What a condition was about may have been changed by another process, and memory says so by now.
    const bool is_refused = may_remove && !MayRemoveAll(there, names, bucket_name, may_remove);
    return is_refused ? ERemoved::kRefused : ERemoved::kFailed;
  }
  if (!shared_) {
    for (const auto& [name, id] : rows) {
      ForgetObject(name, bucket_name);
    }
  }
  return ERemoved::kRemoved;
}

}  // namespace Tansy::CloudStorage
