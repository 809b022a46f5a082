#include "MovableStore.h"

#include <cstring>
#include <utility>

#include "HostLog.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint32_t kPiece = std::uint32_t{4} << 20;

}  // namespace
}  // namespace details

CMovableStore::CMovableStore(std::shared_ptr<IObjectStore> store)
    : stores_{std::move(store)}, now_(stores_.front().get()) {}

EStoreResult CMovableStore::SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) {
  const CWriteGate::CPass pass(gate_);
  const EStoreResult result = Now().SaveWhole(content, data, size, name);
  if (result == EStoreResult::kDone) {
    WriteToMirror(name, 0, data, size, true);
  }
  return result;
}

bool CMovableStore::MakeDurable(const std::vector<std::string_view>& statements, std::string& error) {
  return Now().MakeDurable(statements, error);
}

EStoreResult CMovableStore::SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) {
  const CWriteGate::CPass pass(gate_);
  const bool is_first = name.id.empty();
  std::unique_lock<std::mutex> lock;
  if (mirror_ != nullptr && !is_first) {
    lock = std::unique_lock(LockOf(name));
  }
  const EStoreResult result = Now().SaveAt(name, offset, data, size);
  if (result == EStoreResult::kDone) {
    WriteToMirror(name, offset, data, size, is_first);
  }
  return result;
}

EStoreResult CMovableStore::SaveNamed(const StoredName& name, std::uint64_t offset, const char* data,
                                      std::uint32_t size) {
  const CWriteGate::CPass pass(gate_);
  return Now().SaveNamed(name, offset, data, size);
}

void CMovableStore::WriteToMirror(const StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size,
                                  bool is_first) {
  IObjectStore* const mirror = mirror_;
  if (mirror == nullptr || has_mirror_failed_) {
    return;
  }
  if (mirror->SaveNamed(name, offset, data, size) != EStoreResult::kDone) {
    has_mirror_failed_ = true;
    HOST_LOG(logging::kError, "[%s]the new place of the bytes cannot be written, the old one goes on alone.[%s(%d)]");
  } else if (is_first) {
    SetMirrored(name);
  }
}

void CMovableStore::SetMirrored(const StoredName& name) {
  const std::lock_guard lock(mirrored_mutex_);
  mirrored_.insert(name.id);
}

bool CMovableStore::IsMirrored(const StoredName& name) const {
  const std::lock_guard lock(mirrored_mutex_);
  return mirrored_.count(name.id) > 0;
}

EStoreResult CMovableStore::ReadWhole(const StoredName& name, ReadBuffer& buffer) {
  return Now().ReadWhole(name, buffer);
}

EStoreResult CMovableStore::ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size,
                                      ReadBuffer& buffer) {
  return StoreOfReader(name).ReadRange(name, offset, size, buffer);
}

EStoreResult CMovableStore::BeginRead(const StoredName& name) {
  IObjectStore* store = nullptr;
  {
    const std::lock_guard lock(readers_mutex_);
    Readers& readers = readers_[name.id];
    store = readers.count++ == 0 ? &Now() : readers.store;
    readers.store = store;
  }
  const EStoreResult result = store->BeginRead(name);
  if (result != EStoreResult::kDone) {
    ForgetReader(name);
  }
  return result;
}

void CMovableStore::EndRead(const StoredName& name) {
  ForgetReader(name).EndRead(name);
}

// Reads that have begun go on where they began.
IObjectStore& CMovableStore::StoreOfReader(const StoredName& name) const {
  if (!has_switched_) {
    return Now();
  }
  const std::lock_guard lock(readers_mutex_);
  const auto found = readers_.find(name.id);
  return found == readers_.end() ? Now() : *found->second.store;
}

IObjectStore& CMovableStore::ForgetReader(const StoredName& name) {
  const std::lock_guard lock(readers_mutex_);
  const auto found = readers_.find(name.id);
  if (found == readers_.end()) {
    return Now();
  }
  IObjectStore& store = *found->second.store;
  if (--found->second.count == 0) {
    readers_.erase(found);
  }
  return store;
}

EStoreResult CMovableStore::Remove(const StoredName& name) {
  const CWriteGate::CPass pass(gate_);
  const EStoreResult result = Now().Remove(name);
  if (IObjectStore* const mirror = mirror_) {
    mirror->Remove(name);  // what is left there belongs to no object, and is freed later
  }
  return result;
}

EStoreResult CMovableStore::RemovePath(const std::string& path) {
  const CWriteGate::CPass pass(gate_);
  return Now().RemovePath(path);
}

EStoreResult CMovableStore::FreeNew(const StoredName& name) {
  const CWriteGate::CPass pass(gate_);
  const EStoreResult result = Now().FreeNew(name);
  if (IObjectStore* const mirror = mirror_) {
    mirror->FreeNew(name);
  }
  return result;
}

bool CMovableStore::ForEach(EContent content, const std::function<bool(const StoredEntry&)>& visitor) {
  return Now().ForEach(content, visitor);
}

void CMovableStore::BeginMirror(const std::shared_ptr<IObjectStore>& target) {
  stores_.push_back(target);
  has_mirror_failed_ = false;
  mirror_ = target.get();
}

void CMovableStore::EndMirror() {
  mirror_ = nullptr;
  const std::lock_guard lock(mirrored_mutex_);
  mirrored_.clear();
}

void CMovableStore::Switch() {
  now_.store(mirror_, std::memory_order_release);
  has_switched_ = true;
  EndMirror();
}

std::mutex& CMovableStore::LockOf(const StoredName& name) {
  return name_locks_[std::hash<std::string>()(name.id) % name_locks_.size()];
}

EStoreResult CMovableStore::CopyToMirror(const StoredName& name) {
  std::uint32_t size = details::kPiece;
  for (std::uint64_t offset = 0; size == details::kPiece; offset += size) {
    const EStoreResult result = CopyPiece(name, offset, size);
    if (result != EStoreResult::kDone) {
      return result;
    }
  }
  SetMirrored(name);
  return EStoreResult::kDone;
}

EStoreResult CMovableStore::CopyPiece(const StoredName& name, std::uint64_t offset, std::uint32_t& size) {
  const std::lock_guard lock(LockOf(name));
  IObjectStore& mirror = *mirror_;
  ReadBuffer bytes;
  std::uint64_t whole = 0;
  EStoreResult result = Now().GetSize(name, whole);
  if (result == EStoreResult::kDone) {
    result = Now().ReadRange(name, offset, details::kPiece, bytes);
  }
  if (result != EStoreResult::kDone) {
    return result;
  }
  size = bytes.size;
  if (size == 0 && offset > 0) {
    return EStoreResult::kDone;
  }
  result = mirror.SaveNamed(name, offset, bytes.data.get(), size);
  ReadBuffer copy;
  if (result == EStoreResult::kDone) {
    result = mirror.ReadRange(name, offset, size, copy);
  }
  if (result == EStoreResult::kMissing && Now().GetSize(name, whole) == EStoreResult::kMissing) {
    return result;  // a removal took it from both stores
  }
  const bool is_equal =
      result != EStoreResult::kDone || (copy.size == size && std::memcmp(copy.data.get(), bytes.data.get(), size) == 0);
  if (result == EStoreResult::kMissing || !is_equal) {
    return EStoreResult::kDamaged;
  }
  return result;
}

}  // namespace Tansy::Host
