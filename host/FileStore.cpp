#include "FileStore.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "FileVolumeWalk.h"
#include "HostLog.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kObjectVolume = "fs01";
constexpr const char* kPictureVolume = "pc01";
constexpr const char* kTemporaryEnd = ".tmp";

// Of a large write the disk gets to work on each slice while the next is copied.
constexpr std::uint32_t kWriteOutSlice = 1024 * 1024;

EStoreResult ToResult(int error) {
  if (error == 0) {
    return EStoreResult::kDone;
  }
  if (HostSystem::IsNoSpace(error)) {
    return EStoreResult::kNoSpace;
  }
  return error == ENOENT ? EStoreResult::kMissing : EStoreResult::kFailed;
}

// A failed operation's line in the log, and its result.
EStoreResult Failed(const char* what, const std::string& path, int error) {
  HOST_LOG(logging::kError, "[%s]%s %s failed: %s.[%s(%d)]", what, path.c_str(), HostSystem::ErrorText(error).c_str());
  return ToResult(error);
}

bool Allocate(ReadBuffer& buffer, std::uint32_t size) {
  // Never null for an empty range: a missing buffer means failure to the server.
  buffer.data.reset(static_cast<char*>(std::malloc(std::max<std::size_t>(size, 1))));
  buffer.size = 0;
  return buffer.data != nullptr;
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

}  // namespace
}  // namespace details

CFileStore::CFileStore(std::unique_ptr<HostSystem::IFolder> root, bool full_durability)
    : root_(std::move(root)),
      full_durability_(full_durability),
      objects_(*root_, details::kObjectVolume),
      pictures_(*root_, details::kPictureVolume) {}

EStoreResult CFileStore::SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) {
  CFileVolume::Place place;
  int error = VolumeOf(content).NewPlace(place);
  if (error == 0) {
    error = WriteNew(place, content == EContent::kPicture, 0, data, size);
  }
  if (error != 0) {
    return details::Failed("writing", FilePath(place.name), error);
  }
  name = place.name;
  return EStoreResult::kDone;
}

EStoreResult CFileStore::SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) {
  if (name.id.empty()) {
    CFileVolume::Place place;
    int error = objects_.NewPlace(place);
    if (error == 0) {
      error = WriteNew(place, false, offset, data, size);
    }
    if (error != 0) {
      return details::Failed("writing", FilePath(place.name), error);
    }
    name = place.name;
    return EStoreResult::kDone;
  }
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  std::unique_ptr<HostSystem::IFile> file;
  int error = root_->OpenForWriting(FilePath(name), file);
  if (error == 0) {
    error = WriteDurably(*file, offset, data, size);
  }
  return error == 0 ? EStoreResult::kDone : details::Failed("writing to", FilePath(name), error);
}

int CFileStore::WriteNew(CFileVolume::Place& place, bool under_temporary_name, std::uint64_t offset, const char* data,
                         std::uint32_t size) {
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
    error = place.folder->Sync();
  }
  if (error != 0) {
    place.folder->Remove(renamed ? final_name : first_name);
  }
  return error;
}

int CFileStore::WriteDurably(HostSystem::IFile& file, std::uint64_t offset, const char* data, std::uint32_t size) {
  if (!full_durability_) {
    return file.WriteAt(data, size, offset);
  }
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
  std::unique_ptr<HostSystem::IFile> file;
  std::uint64_t size = 0;
  int error = root_->OpenForReading(FilePath(name), file);
  if (error == 0) {
    error = file->GetSize(size);
  }
  if (error == 0 && size > std::numeric_limits<std::uint32_t>::max()) {
    error = EFBIG;
  }
  if (error == 0) {
    error = details::ReadInto(*file, 0, static_cast<std::uint32_t>(size), buffer);
  }
  return error == 0 ? EStoreResult::kDone : details::Failed("reading", FilePath(name), error);
}

EStoreResult CFileStore::ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size,
                                   ReadBuffer& buffer) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  std::unique_ptr<HostSystem::IFile> file;
  int error = root_->OpenForReading(FilePath(name), file);
  if (error == 0) {
    error = details::ReadInto(*file, offset, size, buffer);
  }
  return error == 0 ? EStoreResult::kDone : details::Failed("reading", FilePath(name), error);
}

EStoreResult CFileStore::Remove(const StoredName& name) {
  return IsMine(name) ? RemovePath(FilePath(name)) : EStoreResult::kInvalid;
}

EStoreResult CFileStore::RemovePath(const std::string& path) {
  const int error = root_->Remove(path);
  if (error == 0 || error == ENOENT) {
    // Bytes that are gone already are as good as removed: what asked for it can go on.
    return EStoreResult::kDone;
  }
  return details::Failed("removing", path, error);
}

EStoreResult CFileStore::GetSize(const StoredName& name, std::uint64_t& size) {
  if (!IsMine(name)) {
    return EStoreResult::kInvalid;
  }
  std::unique_ptr<HostSystem::IFile> file;
  int error = root_->OpenForReading(FilePath(name), file);
  if (error == 0) {
    error = file->GetSize(size);
  }
  return details::ToResult(error);
}

bool CFileStore::IsMine(const StoredName& name) const {
  return name.volume == objects_.GetKey() || name.volume == pictures_.GetKey();
}

bool CFileStore::ForEach(const std::function<void(const StoredEntry&)>& visitor) {
  const bool objects_done = WalkVolume(*root_, objects_.GetKey(), EContent::kObject, visitor);
  const bool pictures_done = WalkVolume(*root_, pictures_.GetKey(), EContent::kPicture, visitor);
  return objects_done && pictures_done;
}

std::vector<VolumeRow> FileStoreVolumes() {
  return {{details::kObjectVolume, StoragePathPrefix(details::kObjectVolume)}};
}

std::unique_ptr<IObjectStore> OpenFileStore(const std::string& path, bool full_durability) {
  const auto fail = [&path](const std::string& what, int error) {
    throw CStartFailure(kExitFailed,
                        "storage folder " + path + " cannot be " + what + ": " + HostSystem::ErrorText(error));
  };
  int error = HostSystem::MakeFolders(path);
  if (error != 0) {
    fail("made", error);
  }
  std::unique_ptr<HostSystem::IFolder> root = HostSystem::OpenFolder(path, error);
  if (root == nullptr) {
    fail("opened", error);
  }
  return std::make_unique<CFileStore>(std::move(root), full_durability);
}

}  // namespace Tansy::Host
