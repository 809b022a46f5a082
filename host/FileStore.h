#ifndef TANSY_HOST_FILE_STORE_H
#define TANSY_HOST_FILE_STORE_H

#include <memory>
#include <string>
#include <vector>

#include "FileVolume.h"
#include "HostSystem/Files.h"
#include "ObjectStore.h"
#include "Schema.h"

namespace Tansy::Host {

// Stored bytes as files: one file a name, below a folder for each volume ("fs01" objects, "pc01" pictures).
//
// Full durability: a write returns when its bytes, the file's size and its name are on stable storage. An object is
// written under its final name at once, because nothing refers to it before the catalogue row is written; a picture is
// written under a temporary name first, because no row will ever tell a whole one from a torn one.
class CFileStore final : public IObjectStore {
 public:
  // `root` is the store's folder.
  CFileStore(std::unique_ptr<HostSystem::IFolder> root, bool full_durability);

  EStoreResult SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) override;
  EStoreResult SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) override;
  EStoreResult ReadWhole(const StoredName& name, ReadBuffer& buffer) override;
  EStoreResult ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size, ReadBuffer& buffer) override;
  EStoreResult Remove(const StoredName& name) override;
  bool IsPicture(const StoredName& name) const override { return name.volume == pictures_.GetKey(); }
  bool ForEach(const std::function<void(const StoredEntry&)>& visitor) override;
  EStoreResult RemovePath(const std::string& path) override;
  EStoreResult GetSize(const StoredName& name, std::uint64_t& size) override;

 private:
  bool IsMine(const StoredName& name) const;
  CFileVolume& VolumeOf(EContent content) { return content == EContent::kObject ? objects_ : pictures_; }
  int WriteNew(CFileVolume::Place& place, bool under_temporary_name, std::uint64_t offset, const char* data,
               std::uint32_t size);
  int WriteDurably(HostSystem::IFile& file, std::uint64_t offset, const char* data, std::uint32_t size);

  std::unique_ptr<HostSystem::IFolder> root_;
  const bool full_durability_;
  CFileVolume objects_;
  CFileVolume pictures_;
};

// What the catalogue needs to know to turn location texts into storage paths. Pictures have no row: they are removed by
// nobody but their host.
std::vector<VolumeRow> FileStoreVolumes();

// Opens the store's folder, making it when missing. Throws CStartFailure with kExitFailed.
std::unique_ptr<IObjectStore> OpenFileStore(const std::string& path, bool full_durability);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FILE_STORE_H
