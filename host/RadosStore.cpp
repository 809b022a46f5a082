#include "RadosStore.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "HostLog.h"
#include "NotesFolder.h"
#include "RadosWalk.h"
#include "StartFailure.h"
#include "StoreResult.h"
#include "TansyBase/MessageLoop.h"
#include "Volumes.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kIdBytes = 16;
// What is read at once of bytes whose number is not known.
constexpr std::uint32_t kFirstRead = std::uint32_t{64} << 10;

const char* VolumeOf(EContent content) {
  return content == EContent::kObject ? kPoolObjects : kPoolPictures;
}

int NewName(EContent content, StoredName& name) {
  name = {VolumeOf(content), kRadosFolder, ""};  // the name is whole even when what follows fails
  unsigned char id[kIdBytes];
  if (RAND_bytes(id, sizeof id) != 1) {
    return EIO;
  }
  name.id = HexText(id, sizeof id);
  return 0;
}

// Ends a removal however the block is left.
class CRemoval {
 public:
  CRemoval(CHeldNames& held, const StoredName& name) : held_(held), name_(name) {}
  ~CRemoval() { held_.EndRemoval(name_); }
  CRemoval(const CRemoval&) = delete;
  CRemoval& operator=(const CRemoval&) = delete;

 private:
  CHeldNames& held_;
  const StoredName& name_;
};

}  // namespace
}  // namespace details

CRadosStore::CRadosStore(std::shared_ptr<CRadosPool> pool, std::unique_ptr<HostSystem::IFolder> notes)
    : pool_(std::move(pool)), notes_(std::move(notes)), chunks_(*pool_) {
  if (notes_ != nullptr) {
    new_ = std::make_unique<CNewBytesLog>(*notes_);
  }
}

int CRadosStore::Load() {
  return new_->Load();
}

EStoreResult CRadosStore::SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) {
  return SaveNew(content, 0, {data, size}, name);
}

bool CRadosStore::MakeDurable(const std::vector<std::string_view>& /*statements*/, std::string& /*error*/) {
  return true;
}

EStoreResult CRadosStore::SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) {
  if (name.id.empty()) {
    return SaveNew(EContent::kObject, offset, {data, size}, name);
  }
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  if (held_.IsRemoved(name) || new_ == nullptr) {
    return new_ == nullptr ? EStoreResult::kFailed : EStoreResult::kMissing;
  }
  new_->BeginWrite(name);
  CNewBytesLog::CWrite write(*new_, name);
  int error = 0;
  {
    const TansyBase::CBlockingScope blocking;
    error = chunks_.WriteMore(name, offset, {data, size});
  }
  cache_.Drop(name.id);
  if (error != 0) {
    return Failed("writing to", name, error);
  }
  write.SetDone();
  return EStoreResult::kDone;
}

EStoreResult CRadosStore::SaveNamed(const StoredName& name, std::uint64_t offset, const char* data,
                                    std::uint32_t size) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  int error = new_ == nullptr ? EROFS : 0;
  if (error == 0 && new_->Contains(name)) {
    new_->BeginWrite(name);
  } else if (error == 0) {
    error = new_->Add(name);
  }
  if (error != 0) {
    return Failed("writing", name, error);
  }
  CNewBytesLog::CWrite write(*new_, name);
  const std::string_view bytes(data, size);
  {
    const TansyBase::CBlockingScope blocking;
    error = IsPicture(name) ? ENOENT : chunks_.WriteMore(name, offset, bytes);
    if (error == ENOENT) {
      bool left_behind = false;  // the note stays in any case
      error = chunks_.WriteNew(name, offset, bytes, IsPicture(name), left_behind);
    }
  }
  cache_.Drop(name.id);
  if (error != 0) {
    return Failed("writing", name, error);
  }
  write.SetDone();
  return EStoreResult::kDone;
}

EStoreResult CRadosStore::SaveNew(EContent content, std::uint64_t offset, std::string_view data, StoredName& name) {
  const bool is_picture = content == EContent::kPicture;
  StoredName new_name;
  int error = details::NewName(content, new_name);
  if (error == 0) {
    error = new_ == nullptr ? EROFS : new_->Add(new_name);
  }
  if (error == 0) {
    CNewBytesLog::CWrite write(*new_, new_name);
    bool left_behind = false;
    {
      const TansyBase::CBlockingScope blocking;
      error = chunks_.WriteNew(new_name, offset, data, is_picture, left_behind);
    }
    if (error == 0) {
      write.SetDone();
    }
    // A picture is complete once it is stored, because no row will ever name it.
    if (error == 0 ? is_picture : !left_behind) {
      new_->Forget(new_name);
    }
  }
  if (error != 0) {
    return Failed("writing", new_name, error);
  }
  name = std::move(new_name);
  return EStoreResult::kDone;
}

EStoreResult CRadosStore::ReadWhole(const StoredName& name, ReadBuffer& buffer) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  const TansyBase::CBlockingScope blocking;
  std::uint64_t size = 0;
  int error = chunks_.Read(name, 0, details::kFirstRead, buffer, size);
  if (error == 0 && size > std::numeric_limits<std::uint32_t>::max()) {
    error = EFBIG;
  }
  if (error == 0 && size > details::kFirstRead) {
    error = chunks_.Read(name, 0, static_cast<std::uint32_t>(size), buffer, size);
  }
  return error == 0 ? EStoreResult::kDone : Failed("reading", name, error);
}

EStoreResult CRadosStore::ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size,
                                    ReadBuffer& buffer) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  CReadCache::Ticket ticket;
  if (cache_.ReadRange(name, offset, size, buffer, ticket)) {
    return EStoreResult::kDone;
  }
  const TansyBase::CBlockingScope blocking;
  std::uint64_t whole_size = 0;
  if (const int error = chunks_.Read(name, offset, size, buffer, whole_size)) {
    return Failed("reading", name, error);
  }
  if (offset == 0) {
    cache_.AddBody(name, buffer, ticket);
  }
  return EStoreResult::kDone;
}

EStoreResult CRadosStore::Remove(const StoredName& name) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  return RemoveUnlessRead(name, IsNew(name) ? EThorough::kIfHeadless : EThorough::kNo);
}

EStoreResult CRadosStore::RemovePath(const std::string& path) {
  StoredName name;
  if (!ParseStoragePath(path, name) || !IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  return RemoveUnlessRead(name, EThorough::kIfHeadless);
}

EStoreResult CRadosStore::RemoveUnlessRead(const StoredName& name, EThorough thorough) {
  if (!held_.BeginRemoval(name)) {
    cache_.Drop(name.id);
    const int error = NoteRemoval(name);
    return error == 0 ? EStoreResult::kDone : Failed("removing", name, error);
  }
  const details::CRemoval removal(held_, name);
  const int error = RemoveNow(name, thorough);
  return error == 0 ? EStoreResult::kDone : Failed("removing", name, error);
}

int CRadosStore::RemoveNow(const StoredName& name, EThorough thorough) {
  const TansyBase::CBlockingScope blocking;
  std::uint64_t size = 0;
  int error = chunks_.GetSize(name, size);
  std::uint32_t count = ChunkCount(size);
  if (error == ENOENT) {
    // The number of chunks went with the head. Without one, they are looked for where a removal or a write may have
    // been cut off.
    count = thorough == EThorough::kIfHeadless ? kMostRadosChunks : 1;
    error = 0;
  }
  if (error == 0 && count > 1) {
    error = NoteRemoval(name);
  }
  if (error == 0) {
    error = chunks_.Remove(name, count);
  }
  cache_.Drop(name.id);
  if (error == 0 && new_ != nullptr) {
    new_->Forget(name);
  }
  return error;
}

// Notes a name whose bytes are about to go piece by piece, so that what a crash leaves of them is freed.
int CRadosStore::NoteRemoval(const StoredName& name) {
  if (new_ == nullptr || new_->Contains(name)) {
    return 0;
  }
  if (const int error = new_->Add(name)) {
    return error;
  }
  const CNewBytesLog::CWrite ended(*new_, name);  // as failed
  return 0;
}

EStoreResult CRadosStore::Look() {
  const StoredName nothing{kPoolObjects, "0000", std::string(32, '0')};  // no id that was ever given
  const TansyBase::CBlockingScope blocking;
  std::uint64_t size = 0;
  const int error = chunks_.GetSize(nothing, size);
  return error == 0 || error == ENOENT ? EStoreResult::kDone : EStoreResult::kFailed;
}

EStoreResult CRadosStore::BeginRead(const StoredName& name) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  if (!held_.Begin(name)) {
    return EStoreResult::kMissing;
  }
  const TansyBase::CBlockingScope blocking;
  std::uint64_t size = 0;
  if (const int error = chunks_.GetSize(name, size)) {
    EndRead(name);
    return Failed("opening", name, error);
  }
  return EStoreResult::kDone;
}

void CRadosStore::EndRead(const StoredName& name) {
  if (!held_.End(name)) {
    return;
  }
  const details::CRemoval removal(held_, name);
  if (const int error = RemoveNow(name, EThorough::kNo)) {
    Failed("removing", name, error);  // its note stays, so housekeeping tries again
  }
}

bool CRadosStore::IsPicture(const StoredName& name) const {
  return IsPictureVolume(name.volume);
}

bool CRadosStore::IsMine(const StoredName& name) const {
  const bool is_pools = name.volume == kPoolObjects || name.volume == kPoolPictures;
  return (IsObjectVolume(name.volume) || IsPicture(name)) && (!is_pools || name.folder == kRadosFolder);
}

bool CRadosStore::ForEach(EContent content, const std::function<bool(const StoredEntry&)>& visitor) {
  const auto show = [this, &visitor](const StoredEntry& entry) {
    return held_.IsRemoved(entry.name) || visitor(entry);
  };
  const int error = WalkPool(*pool_, content, show);
  if (error != 0) {
    HOST_LOG(logging::kError, "[%s]listing %s failed: %s.[%s(%d)]", pool_->Describe().c_str(),
             HostSystem::ErrorText(error).c_str());
  }
  return error == 0;
}

EStoreResult CRadosStore::GetSize(const StoredName& name, std::uint64_t& size) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  if (held_.IsRemoved(name)) {
    return EStoreResult::kMissing;
  }
  return StoreResultOf(chunks_.GetSize(name, size));
}

std::vector<NewBytes> CRadosStore::GetNew(std::int64_t seconds) const {
  std::vector<NewBytes> bytes;
  if (new_ != nullptr) {
    bytes = new_->GetUntouched(seconds);
    std::erase_if(bytes, [this](const NewBytes& one) { return held_.HasReaders(one.name); });
  }
  return bytes;
}

bool CRadosStore::IsNew(const StoredName& name) const {
  return new_ != nullptr && new_->Contains(name);
}

void CRadosStore::TouchNew(const std::vector<StoredName>& names) {
  new_->Touch(names);
}

void CRadosStore::ForgetNew(const std::vector<StoredName>& names) {
  for (const StoredName& name : names) {
    new_->Forget(name);
  }
}

EStoreResult CRadosStore::FreeNew(const StoredName& name) {
  std::uint64_t size = 0;
  if (IsPicture(name) && chunks_.GetSize(name, size) == 0) {
    new_->Forget(name);  // it is whole: a crash may have come after its address was sent
    return EStoreResult::kDone;
  }
  return RemoveUnlessRead(name, EThorough::kIfHeadless);
}

void CRadosStore::Tidy(const std::function<bool()>& /*is_stopping*/) {
  if (new_ != nullptr) {
    new_->TurnPage();
  }
}

bool CRadosStore::LookAgain(std::vector<StoredName>& new_names) {
  return ReadNotesFolder(new_names);
}

EStoreResult CRadosStore::Failed(const char* what, const StoredName& name, int error) const {
  HOST_LOG(logging::kError, "[%s]%s %s in %s failed: %s.[%s(%d)]", what, FilePath(name).c_str(),
           pool_->Describe().c_str(), HostSystem::ErrorText(error).c_str());
  return StoreResultOf(error);
}

std::vector<VolumeRow> RadosStoreVolumes() {
  return {{kPoolObjects, StoragePathPrefix(kPoolObjects)}};
}

std::unique_ptr<IObjectStore> OpenRadosStore(std::shared_ptr<CRadosPool> pool, EStoreUse use) {
  if (use != EStoreUse::kServe && use != EStoreUse::kShare) {
    return std::make_unique<CRadosStore>(std::move(pool), nullptr);
  }
  auto store = std::make_unique<CRadosStore>(std::move(pool), OpenNotesFolder());
  if (const int error = store->Load()) {
    throw CStartFailure(kExitFailed, "the notes of new bytes cannot be read: " + HostSystem::ErrorText(error));
  }
  return store;
}

}  // namespace Tansy::Host
