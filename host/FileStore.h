#ifndef TANSY_HOST_FILE_STORE_H
#define TANSY_HOST_FILE_STORE_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BodyLog.h"
#include "FileVolume.h"
#include "HeldFiles.h"
#include "HostSystem/Files.h"
#include "NewBytesLog.h"
#include "ObjectStore.h"
#include "ReadCache.h"
#include "Schema.h"
#include "StoreRoom.h"
#include "Volumes.h"

namespace Tansy::Host {

// Stored bytes as files: one file per name, below a folder for each volume ("fs01" objects, "pc01" pictures). Small
// objects lie together in the files of the body log ("lg01"), which one process alone can use; in a store that several
// share they are files like the others. What was moved here from a pool lies in files too, under the names that it had
// there (FilePlaces.h).
//
// Full durability: a write returns when its bytes, the file's size and its name are on stable storage. An object is
// written under its final name at once, because nothing refers to it before the catalogue row is written; a picture is
// written under a temporary name first, because no row will ever tell a whole one from a torn one. Small objects wait
// for MakeDurable.
class CFileStore final : public IObjectStore {
 public:
  // `root` is the store's folder. `notes` is the folder for names of new bytes; null: the same.
  CFileStore(std::unique_ptr<HostSystem::IFolder> root, bool full_durability, EStoreUse use = EStoreUse::kServe,
             std::unique_ptr<HostSystem::IFolder> notes = nullptr);

  EStoreResult SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) override;
  bool MakeDurable(const std::vector<std::string_view>& statements, std::string& error) override;
  EStoreResult SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) override;
  EStoreResult SaveNamed(const StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) override;
  EStoreResult ReadWhole(const StoredName& name, ReadBuffer& buffer) override;
  EStoreResult ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size, ReadBuffer& buffer) override;
  EStoreResult Look() override;
  std::uint32_t DownloadChunk() const override;
  EStoreResult Remove(const StoredName& name) override;
  EStoreResult BeginRead(const StoredName& name) override;
  void EndRead(const StoredName& name) override { held_.End(name); }
  bool IsPicture(const StoredName& name) const override { return IsPictureVolume(name.volume); }
  bool ForEach(EContent content, const std::function<bool(const StoredEntry&)>& visitor) override;
  EStoreResult RemovePath(const std::string& path) override;
  EStoreResult GetSize(const StoredName& name, std::uint64_t& size) override;
  std::vector<NewBytes> GetNew(std::int64_t seconds) const override;
  bool IsNew(const StoredName& name) const override;
  void TouchNew(const std::vector<StoredName>& names) override { new_.Touch(names); }
  void ForgetNew(const std::vector<StoredName>& names) override;
  EStoreResult FreeNew(const StoredName& name) override;
  void Tidy(const std::function<bool()>& is_stopping) override;
  bool LookAgain(std::vector<StoredName>& new_names) override;

  // Takes over what earlier runs have stored and what they left unfinished. It must be called once, before everything
  // else. Returns 0 or errno.
  int Load();
  bool HasSmallBodies() const;

 private:
  bool IsServed() const { return use_ == EStoreUse::kServe || use_ == EStoreUse::kShare; }
  static bool IsMine(const StoredName& name) { return IsObjectVolume(name.volume) || IsPictureVolume(name.volume); }
  // Says whether these bytes are in the body log, or were.
  bool IsSmallBody(const StoredName& name) const;
  int WriteInto(const StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size);
  EStoreResult SaveSmall(std::string_view body, StoredName& name);
  EStoreResult ReadSmall(const StoredName& name, std::uint64_t offset, std::uint32_t size, ReadBuffer& buffer);
  CFileVolume& VolumeOf(EContent content) { return content == EContent::kObject ? objects_ : pictures_; }
  EStoreResult SaveNew(EContent content, std::uint64_t offset, const char* data, std::uint32_t size, StoredName& name);
  int WriteNew(CFileVolume::Place& place, bool under_temporary_name, std::uint64_t offset, const char* data,
               std::uint32_t size, bool& left_behind);
  int OpenForReading(const StoredName& name, std::shared_ptr<HostSystem::IFile>& file);
  int WriteDurably(HostSystem::IFile& file, std::uint64_t offset, const char* data, std::uint32_t size);

  std::unique_ptr<HostSystem::IFolder> root_;
  std::unique_ptr<HostSystem::IFolder> notes_;
  const bool full_durability_;
  const EStoreUse use_;
  CFileVolume objects_;
  CFileVolume pictures_;
  CNewBytesLog new_;
  CStoreRoom room_;
  CBodyLog bodies_;
  CHeldFiles held_;
  CReadCache cache_;
  std::atomic<bool> has_moved_bodies_{false};  // small bodies as files
};

// Gives what the catalogue needs to turn location texts into storage paths. Pictures are left out: they have no row,
// and only the host removes them.
std::vector<VolumeRow> FileStoreVolumes();

// Opens the store's folder. Throws CStartFailure with kExitFailed.
std::unique_ptr<IObjectStore> OpenFileStore(const std::string& path, bool full_durability,
                                            EStoreUse use = EStoreUse::kServe);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FILE_STORE_H
