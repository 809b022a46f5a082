#include "MovableStore.h"

#include <cstring>
#include <utility>

#include "HostLog.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint32_t kPiece = std::uint32_t{4} << 20;

EStoreResult SaveAndCompare(IObjectStore& store, const StoredName& name, std::uint64_t offset,
                            const ReadBuffer& bytes) {
  EStoreResult result = store.SaveNamed(name, offset, bytes.data.get(), bytes.size);
  ReadBuffer copy;
  if (result == EStoreResult::kDone) {
    result = store.ReadRange(name, offset, bytes.size, copy);
  }
  const bool is_equal = result != EStoreResult::kDone ||
                        (copy.size == bytes.size && std::memcmp(copy.data.get(), bytes.data.get(), bytes.size) == 0);
  return is_equal && result != EStoreResult::kMissing ? result : EStoreResult::kDamaged;
}

}  // namespace
}  // namespace details

CMovableStore::CMovableStore(std::shared_ptr<IObjectStore> store)
    : stores_{std::move(store)}, now_(stores_.front().get()) {}

EStoreResult CMovableStore::SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) {
  const CWriteGate::CPass pass(gate_);
  const EStoreResult result = Now().SaveWhole(content, data, size, name);
  if (result == EStoreResult::kDone && mirror_ != nullptr) {
    if (content == EContent::kPicture) {
      const std::lock_guard lock(pictures_mutex_);
      mirrored_pictures_.push_back(name);
    }
    mirror_->WaitABit(GiveToMirror(name, 0, data, size));
  }
  return result;
}

bool CMovableStore::MakeDurable(const std::vector<std::string_view>& statements, std::string& error) {
  return Now().MakeDurable(statements, error);
}

EStoreResult CMovableStore::SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) {
  const CWriteGate::CPass pass(gate_);
  if (mirror_ == nullptr) {
    return Now().SaveAt(name, offset, data, size);
  }
  std::unique_lock<std::mutex> lock;
  if (!name.id.empty()) {
    lock = std::unique_lock(LockOf(name));
  }
  CStoreMirror::Ticket ticket;
  const EStoreResult result = Now().SaveAt(name, offset, data, size);
  if (result == EStoreResult::kDone) {
    ticket = GiveToMirror(name, offset, data, size);
  }
  lock = {};
  mirror_->WaitABit(ticket);
  return result;
}

EStoreResult CMovableStore::SaveNamed(const StoredName& name, std::uint64_t offset, const char* data,
                                      std::uint32_t size) {
  const CWriteGate::CPass pass(gate_);
  return Now().SaveNamed(name, offset, data, size);
}

CStoreMirror::Ticket CMovableStore::GiveToMirror(const StoredName& name, std::uint64_t offset, const char* data,
                                                 std::uint32_t size) noexcept {
  return mirror_->Give(name, size, [&]() -> CStoreMirror::Work {
    return [name, offset, bytes = std::make_shared<const std::string>(data, size)](IObjectStore& target) {
      return target.SaveNamed(name, offset, bytes->data(), static_cast<std::uint32_t>(bytes->size()));
    };
  });
}

std::vector<StoredName> CMovableStore::TakeMirroredPictures() {
  const std::lock_guard lock(pictures_mutex_);
  return std::exchange(mirrored_pictures_, {});
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

// What is left in the mirror after a removal belongs to no object, and is freed later.
EStoreResult CMovableStore::Remove(const StoredName& name) {
  const CWriteGate::CPass pass(gate_);
  const EStoreResult result = Now().Remove(name);
  if (mirror_ != nullptr) {
    mirror_->WaitABit(mirror_->Give(name, 0, [&name]() -> CStoreMirror::Work {
      return [name](IObjectStore& target) {
        target.Remove(name);
        return EStoreResult::kDone;
      };
    }));
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
  if (mirror_ != nullptr) {
    mirror_->WaitABit(mirror_->Give(name, 0, [&name]() -> CStoreMirror::Work {
      return [name](IObjectStore& target) {
        target.FreeNew(name);
        return EStoreResult::kDone;
      };
    }));
  }
  return result;
}

bool CMovableStore::ForEach(EContent content, const std::function<bool(const StoredEntry&)>& visitor) {
  return Now().ForEach(content, visitor);
}

void CMovableStore::BeginMirror(std::unique_ptr<CStoreMirror> mirror) {
  stores_.reserve(stores_.size() + 1);  // so that nothing can fail in the switch
  mirror_ = std::move(mirror);
}

void CMovableStore::EndMirror() {
  if (mirror_ != nullptr) {
    mirror_->End();
  }
  TakeMirroredPictures();
}

void CMovableStore::Switch() {
  stores_.push_back(mirror_->Target());
  now_.store(stores_.back().get(), std::memory_order_release);
  has_switched_ = true;
  mirror_.reset();
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
  return EStoreResult::kDone;
}

EStoreResult CMovableStore::CopyPiece(const StoredName& name, std::uint64_t offset, std::uint32_t& size) {
  CStoreMirror::Ticket ticket;
  {
    const std::lock_guard lock(LockOf(name));
    auto bytes = std::make_shared<ReadBuffer>();
    const EStoreResult result = Now().ReadRange(name, offset, details::kPiece, *bytes);
    if (result != EStoreResult::kDone) {
      return result;
    }
    size = bytes->size;
    if (size == 0 && offset > 0) {
      return EStoreResult::kDone;
    }
    ticket = mirror_->Give(name, size, [&]() -> CStoreMirror::Work {
      return
          [name, offset, bytes](IObjectStore& target) { return details::SaveAndCompare(target, name, offset, *bytes); };
    });
  }
  return mirror_->WaitForEnd(ticket);
}

}  // namespace Tansy::Host
