#include "FileStore.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "FilePlaces.h"
#include "FileVolumeWalk.h"
#include "HostLog.h"
#include "NotesFolder.h"
#include "StartFailure.h"
#include "StoreResult.h"
#include "TansyBase/MessageLoop.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kTemporaryEnd = ".tmp";

// A large write is cut into slices of this size, so that the disk writes one slice while the next one is copied.
constexpr std::uint32_t kWriteOutSlice = 1024 * 1024;

// What a download reads is still in the processor's cache when it is sent.
constexpr std::uint32_t kDownloadChunk = 1024 * 1024;

// Writes a failed operation into the log and gives its result.
EStoreResult Failed(const char* what, const std::string& path, int error) {
  HOST_LOG(logging::kError, "[%s]%s %s failed: %s.[%s(%d)]", what, path.c_str(), HostSystem::ErrorText(error).c_str());
  return StoreResultOf(error);
}

// Gives the id in the path of a stored file.
std::string IdOfPath(const std::string& path) {
  const std::string file_name = path.substr(path.rfind('/') + 1);
  return file_name.substr(0, file_name.find('.'));
}

int ReadInto(HostSystem::IFile& file, std::uint64_t offset, std::uint32_t size, ReadBuffer& buffer) {
  if (!Allocate(buffer, size)) {
    return ENOMEM;
  }
  std::size_t done = 0;
  const int error = file.ReadAt(buffer.data.get(), size, offset, done);
  buffer.size = static_cast<std::uint32_t>(done);
  return error;
}

// Reads a range of a small body. A whole one is compared with its checksum; the damaged one gives EBADMSG.
int ReadBody(const BodyPlace& place, std::uint64_t offset, std::uint32_t size, ReadBuffer& buffer) {
  const auto begin = static_cast<std::uint32_t>(std::min<std::uint64_t>(offset, place.size));
  const std::uint32_t count = std::min(size, place.size - begin);
  if (const int error = ReadInto(*place.file, std::uint64_t{place.offset} + begin, count, buffer)) {
    return error;
  }
  const bool is_damaged = buffer.size < count || (count == place.size && !IsWhole(place, buffer.data.get()));
  return is_damaged ? EBADMSG : 0;
}

// A small body as a file of its own, for those who hold it open.
class CBodyFile final : public HostSystem::IFile {
 public:
  explicit CBodyFile(BodyPlace place) : place_(std::move(place)) {}

  int WriteAt(const char* /*data*/, std::size_t /*size*/, std::uint64_t /*offset*/) override { return EROFS; }
  int ReadAt(char* data, std::size_t size, std::uint64_t offset, std::size_t& done) override {
    const std::uint64_t begin = std::min<std::uint64_t>(offset, place_.size);
    return place_.file->ReadAt(data, std::min<std::uint64_t>(size, place_.size - begin), place_.offset + begin, done);
  }
  int GetSize(std::uint64_t& size) override {
    size = place_.size;
    return 0;
  }
  void StartWriteOut(std::uint64_t /*offset*/, std::uint64_t /*size*/) override {}
  int Sync() override { return 0; }

 private:
  const BodyPlace place_;
};

CBodyLog::EMode ModeOf(bool full_durability, EStoreUse use) {
  if (use != EStoreUse::kServe) {
    return use == EStoreUse::kRepair ? CBodyLog::EMode::kFull : CBodyLog::EMode::kLook;
  }
  return full_durability ? CBodyLog::EMode::kFull : CBodyLog::EMode::kFast;
}

}  // namespace
}  // namespace details

CFileStore::CFileStore(std::unique_ptr<HostSystem::IFolder> root, bool full_durability, EStoreUse use,
                       std::unique_ptr<HostSystem::IFolder> notes)
    : root_(std::move(root)),
      notes_(std::move(notes)),
      full_durability_(full_durability),
      use_(use),
      objects_(*root_, kFileObjects),
      pictures_(*root_, kFilePictures),
      new_(notes_ == nullptr ? *root_ : *notes_),
      room_(*root_),
      bodies_(*root_, details::ModeOf(full_durability, use), &room_) {}

int CFileStore::Load() {
  std::unique_ptr<HostSystem::IFolder> moved;
  has_moved_bodies_ = root_->OpenFolder(kMovedBodies, moved) == 0;
  const int error = bodies_.Load();
  return error == 0 && IsServed() ? new_.Load() : error;
}

EStoreResult CFileStore::SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) {
  if (content == EContent::kObject && size <= kLongestSmallBody && use_ != EStoreUse::kShare) {
    return SaveSmall({data, size}, name);
  }
  return SaveNew(content, 0, data, size, name);
}

EStoreResult CFileStore::SaveSmall(std::string_view body, StoredName& name) {
  const CStoreRoom::CClaim room(room_, body.size());
  const int error = room ? bodies_.Append(body, name) : ENOSPC;
  return error == 0 ? EStoreResult::kDone : details::Failed("writing to", kBodyLogVolume, error);
}

bool CFileStore::MakeDurable(const std::vector<std::string_view>& statements, std::string& error) {
  return !full_durability_ || bodies_.MakeDurable(statements, error);
}

EStoreResult CFileStore::SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) {
  if (name.id.empty()) {
    return SaveNew(EContent::kObject, offset, data, size, name);
  }
  if (!IsMine(name) || IsSmallBody(name)) {
    return EStoreResult::kInvalid;  // a small body is never changed
  }
  new_.BeginWrite(name);
  CNewBytesLog::CWrite write(new_, name);
  const CStoreRoom::CClaim room(room_, size);
  std::unique_ptr<HostSystem::IFile> file;
  int error = room ? root_->OpenForWriting(FilePathOf(name), file) : ENOSPC;
  if (error == 0) {
    error = WriteDurably(*file, offset, data, size);
  }
  cache_.Drop(name.id);
  if (error != 0) {
    return details::Failed("writing to", FilePathOf(name), error);
  }
  write.SetDone();
  return EStoreResult::kDone;
}

EStoreResult CFileStore::SaveNamed(const StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) {
  if (!IsMine(name) || bodies_.HasSegment(name)) {
    return EStoreResult::kInvalid;
  }
  if (name.volume == kSmallBodies) {
    has_moved_bodies_ = true;
  }
  int error = 0;
  if (new_.Contains(name)) {
    new_.BeginWrite(name);
  } else {
    error = new_.Add(name);
  }
  if (error == 0) {
    CNewBytesLog::CWrite write(new_, name);
    const CStoreRoom::CClaim room(room_, size);
    error = room ? WriteInto(name, offset, data, size) : ENOSPC;
    cache_.Drop(name.id);
    if (error == 0) {
      write.SetDone();
      return EStoreResult::kDone;
    }
  }
  return details::Failed("writing", FilePathOf(name), error);
}

int CFileStore::WriteInto(const StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) {
  std::unique_ptr<HostSystem::IFile> file;
  int error = IsPicture(name) ? ENOENT : root_->OpenForWriting(FilePathOf(name), file);
  if (error == 0) {
    return WriteDurably(*file, offset, data, size);
  }
  std::unique_ptr<HostSystem::IFolder> folder;
  if (error == ENOENT) {
    error = OpenVolumeFolder(*root_, FileFolderOf(name), folder);
  }
  if (error != 0) {
    return error;
  }
  CFileVolume::Place place{std::move(folder), name};
  if (IsPicture(name)) {
    place.folder->Remove(name.id + details::kTemporaryEnd);  // of an attempt that a crash has cut short
  }
  bool left_behind = false;  // the note stays in any case
  return WriteNew(place, IsPicture(name), offset, data, size, left_behind);
}

EStoreResult CFileStore::SaveNew(EContent content, std::uint64_t offset, const char* data, std::uint32_t size,
                                 StoredName& name) {
  const bool is_picture = content == EContent::kPicture;
  const CStoreRoom::CClaim room(room_, size);
  if (!room) {
    return details::Failed("writing to", VolumeOf(content).GetKey(), ENOSPC);
  }
  CFileVolume::Place place;
  int error = VolumeOf(content).NewPlace(place);
  if (error == 0) {
    error = new_.Add(place.name);
  }
  if (error == 0) {
    CNewBytesLog::CWrite write(new_, place.name);
    bool left_behind = false;
    error = WriteNew(place, is_picture, offset, data, size, left_behind);
    if (error == 0) {
      write.SetDone();
    }
    // A picture is complete once it is stored, because no row will ever name it.
    if (error == 0 ? is_picture : !left_behind) {
      new_.Forget(place.name);
    }
  }
  if (error != 0) {
    return details::Failed("writing", FilePathOf(place.name), error);
  }
  name = place.name;
  return EStoreResult::kDone;
}

int CFileStore::WriteNew(CFileVolume::Place& place, bool under_temporary_name, std::uint64_t offset, const char* data,
                         std::uint32_t size, bool& left_behind) {
  const std::string final_name = FileName(place.name);
  const std::string first_name = under_temporary_name ? place.name.id + details::kTemporaryEnd : final_name;
  std::unique_ptr<HostSystem::IFile> file;
  int error = place.folder->Create(first_name, file);
  if (error != 0) {
    return error;
  }
  error = WriteDurably(*file, offset, data, size);
  file.reset();
  bool renamed = false;
  if (error == 0 && under_temporary_name) {
    error = place.folder->Rename(first_name, final_name);
    renamed = error == 0;
  }
  if (error == 0 && full_durability_) {
    const TansyBase::CBlockingScope blocking;
    error = place.folder->Sync();
  }
  if (error != 0) {
    const int remove_error = place.folder->Remove(renamed ? final_name : first_name);
    left_behind = remove_error != 0 && remove_error != ENOENT;
  }
  return error;
}

int CFileStore::WriteDurably(HostSystem::IFile& file, std::uint64_t offset, const char* data, std::uint32_t size) {
  if (!full_durability_) {
    return file.WriteAt(data, size, offset);
  }
  const TansyBase::CBlockingScope blocking;
  for (std::uint32_t done = 0; done < size;) {
    const std::uint32_t slice = std::min(size - done, details::kWriteOutSlice);
    if (const int error = file.WriteAt(data + done, slice, offset + done)) {
      return error;
    }
    if (size > details::kWriteOutSlice) {
      file.StartWriteOut(offset + done, slice);
    }
    done += slice;
  }
  return file.Sync();
}

EStoreResult CFileStore::ReadWhole(const StoredName& name, ReadBuffer& buffer) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  if (IsSmallBody(name)) {
    return ReadSmall(name, 0, kLongestSmallBody, buffer);
  }
  std::shared_ptr<HostSystem::IFile> file;
  std::uint64_t size = 0;
  int error = OpenForReading(name, file);
  if (error == 0) {
    error = file->GetSize(size);
  }
  if (error == 0 && size > std::numeric_limits<std::uint32_t>::max()) {
    error = EFBIG;
  }
  if (error == 0) {
    error = details::ReadInto(*file, 0, static_cast<std::uint32_t>(size), buffer);
  }
  return error == 0 ? EStoreResult::kDone : details::Failed("reading", FilePathOf(name), error);
}

EStoreResult CFileStore::ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size,
                                   ReadBuffer& buffer) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  CReadCache::Ticket ticket;
  if (cache_.ReadRange(name, offset, size, buffer, ticket)) {
    return EStoreResult::kDone;
  }
  if (IsSmallBody(name)) {
    const EStoreResult result = ReadSmall(name, offset, size, buffer);
    if (result == EStoreResult::kDone && offset == 0) {
      cache_.AddBody(name, buffer, ticket);
    }
    return result;
  }
  std::shared_ptr<HostSystem::IFile> file;
  int error = OpenForReading(name, file);
  if (error == 0) {
    error = details::ReadInto(*file, offset, size, buffer);
  }
  if (error == 0 && offset == 0) {
    cache_.AddBody(name, buffer, ticket);
  }
  return error == 0 ? EStoreResult::kDone : details::Failed("reading", FilePathOf(name), error);
}

EStoreResult CFileStore::Look() {
  std::vector<HostSystem::FolderEntry> entries;
  return root_->List(entries) == 0 ? EStoreResult::kDone : EStoreResult::kFailed;
}

std::uint32_t CFileStore::DownloadChunk() const {
  return details::kDownloadChunk;
}

EStoreResult CFileStore::ReadSmall(const StoredName& name, std::uint64_t offset, std::uint32_t size,
                                   ReadBuffer& buffer) {
  BodyPlace place;
  int error = bodies_.Find(name, place);
  const std::shared_ptr<HostSystem::IFile> held = error == ENOENT ? held_.Find(name) : nullptr;
  if (error == 0) {
    error = details::ReadBody(place, offset, size, buffer);
  } else if (held != nullptr) {
    error = details::ReadInto(*held, offset, size, buffer);
  }
  if (error == EBADMSG) {
    HOST_LOG(logging::kError, "[%s]%s is damaged: its bytes are not those that were stored.[%s(%d)]",
             FilePathOf(name).c_str());
    return EStoreResult::kDamaged;
  }
  return error == 0 ? EStoreResult::kDone : details::Failed("reading", FilePathOf(name), error);
}

EStoreResult CFileStore::BeginRead(const StoredName& name) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  std::shared_ptr<HostSystem::IFile> file;
  if (const int error = OpenForReading(name, file)) {
    return details::Failed("opening", FilePathOf(name), error);
  }
  held_.Begin(name, std::move(file));
  return EStoreResult::kDone;
}

int CFileStore::OpenForReading(const StoredName& name, std::shared_ptr<HostSystem::IFile>& file) {
  CReadCache::Ticket ticket;
  file = held_.Find(name);
  if (file == nullptr) {
    file = cache_.FindFile(name, ticket);
  }
  if (file != nullptr) {
    return 0;
  }
  if (IsSmallBody(name)) {
    BodyPlace place;
    const int error = bodies_.Find(name, place);
    file = error == 0 ? std::make_shared<details::CBodyFile>(std::move(place)) : nullptr;
    return error;
  }
  std::unique_ptr<HostSystem::IFile> opened;
  if (const int error = root_->OpenForReading(FilePathOf(name), opened)) {
    return error;
  }
  file = std::move(opened);
  cache_.AddFile(name, file, ticket);
  return 0;
}

EStoreResult CFileStore::Remove(const StoredName& name) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  const EStoreResult result = RemovePath(IsSmallBody(name) ? FilePath(name) : FilePathOf(name));
  if (result == EStoreResult::kDone) {
    new_.Forget(name);
  }
  return result;
}

EStoreResult CFileStore::RemovePath(const std::string& path) {
  StoredName name;
  if (ParseStoragePath(path, name) && IsSmallBody(name)) {
    bodies_.Remove(name);
    cache_.Drop(name.id);
    return EStoreResult::kDone;
  }
  // Memory is asked for before the removal: whoever gets an exception takes the bytes for being still there.
  const std::string id = details::IdOfPath(path);
  const int error = root_->Remove(path);
  cache_.Drop(id);
  if (error == 0 || error == ENOENT) {
    // Bytes that are gone already count as removed, so that the caller can go on.
    return EStoreResult::kDone;
  }
  return details::Failed("removing", path, error);
}

EStoreResult CFileStore::GetSize(const StoredName& name, std::uint64_t& size) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  if (IsSmallBody(name)) {
    BodyPlace place;
    const int error = bodies_.Find(name, place);
    size = place.size;
    return StoreResultOf(error);
  }
  std::unique_ptr<HostSystem::IFile> file;
  int error = root_->OpenForReading(FilePathOf(name), file);
  if (error == 0) {
    error = file->GetSize(size);
  }
  return StoreResultOf(error);
}

bool CFileStore::IsSmallBody(const StoredName& name) const {
  return name.volume == kSmallBodies && (!has_moved_bodies_ || bodies_.HasSegment(name));
}

bool CFileStore::ForEach(EContent content, const std::function<bool(const StoredEntry&)>& visitor) {
  bool goes_on = true;
  bool complete = true;
  const auto look = [&](const StoredEntry& entry) { return goes_on = visitor(entry); };
  const auto volumes = content == EContent::kObject ? std::vector<std::string>{kFileObjects, kMovedBodies, kPoolObjects}
                                                    : std::vector<std::string>{kFilePictures, kPoolPictures};
  for (const std::string& volume : volumes) {
    complete = (!goes_on || WalkVolume(*root_, volume, content, look)) && complete;
  }
  if (goes_on && content == EContent::kObject) {
    bodies_.ForEach(visitor);
  }
  return complete;
}

std::vector<NewBytes> CFileStore::GetNew(std::int64_t seconds) const {
  std::vector<NewBytes> bytes = new_.GetUntouched(seconds);
  bodies_.AddUnsettled(seconds, bytes);
  return bytes;
}

bool CFileStore::IsNew(const StoredName& name) const {
  return IsServed() && (new_.Contains(name) || bodies_.IsUnsettled(name));
}

void CFileStore::Tidy(const std::function<bool()>& is_stopping) {
  new_.TurnPage();
  if (use_ != EStoreUse::kShare) {
    bodies_.Tidy(is_stopping);
  }
}

bool CFileStore::LookAgain(std::vector<StoredName>& new_names) {
  if (bodies_.Load() != 0 || CNewBytesLog::Read(*root_, new_names) != 0 || !ReadNotesFolder(new_names)) {
    return false;
  }
  std::vector<NewBytes> bodies;
  bodies_.AddUnsettled(0, bodies);
  for (NewBytes& body : bodies) {
    new_names.push_back(std::move(body.name));
  }
  return true;
}

bool CFileStore::HasSmallBodies() const {
  return !bodies_.ForEach([](const StoredEntry&) { return false; });
}

void CFileStore::ForgetNew(const std::vector<StoredName>& names) {
  for (const StoredName& name : names) {
    if (IsSmallBody(name)) {
      bodies_.Settle(name);
    } else {
      new_.Forget(name);
    }
  }
}

EStoreResult CFileStore::FreeNew(const StoredName& name) {
  // Only the temporary file of a picture is removed: a crash may have come after the picture's address was sent.
  const EStoreResult result =
      IsPicture(name) ? RemovePath(FileFolderOf(name) + "/" + name.id + details::kTemporaryEnd) : Remove(name);
  if (result == EStoreResult::kDone) {
    new_.Forget(name);
  }
  return result;
}

std::vector<VolumeRow> FileStoreVolumes() {
  return {{kFileObjects, StoragePathPrefix(kFileObjects)}, {kSmallBodies, StoragePathPrefix(kSmallBodies)}};
}

std::unique_ptr<IObjectStore> OpenFileStore(const std::string& path, bool full_durability, EStoreUse use) {
  const auto expect = [&path](int error, const char* what) {
    if (error != 0) {
      throw CStartFailure(kExitFailed,
                          "storage folder " + path + " cannot be " + what + ": " + HostSystem::ErrorText(error));
    }
  };
  const bool is_shared = use == EStoreUse::kShare;
  if (use == EStoreUse::kServe || is_shared) {
    expect(HostSystem::MakeFolders(path), "made");
  }
  int error = 0;
  std::unique_ptr<HostSystem::IFolder> notes = is_shared ? OpenNotesFolder() : nullptr;
  std::unique_ptr<HostSystem::IFolder> root = HostSystem::OpenFolder(path, error);
  expect(root == nullptr ? error : 0, "opened");
  auto store = std::make_unique<CFileStore>(std::move(root), full_durability, use, std::move(notes));
  expect(store->Load(), "read");
  if (is_shared && store->HasSmallBodies()) {
    throw CStartFailure(kExitFailed, "storage folder " + path +
                                         " holds small objects that one tansyd alone has stored (" + kBodyLogVolume +
                                         "): several cannot share it");
  }
  return store;
}

}  // namespace Tansy::Host
