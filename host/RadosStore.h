#ifndef TANSY_HOST_RADOS_STORE_H
#define TANSY_HOST_RADOS_STORE_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "HeldNames.h"
#include "HostSystem/Files.h"
#include "NewBytesLog.h"
#include "ObjectStore.h"
#include "RadosChunks.h"
#include "RadosPool.h"
#include "ReadCache.h"
#include "Schema.h"

namespace Tansy::Host {

// Stored bytes in a pool of a Ceph cluster, in chunks (RadosChunks.h), in the volumes "rd01" (objects) and "rp01"
// (pictures), and whatever was moved here from a folder, under the names that it had there.
//
// The cluster acknowledges a write when every replica has it on stable storage, so all writes are durable when they
// return. What is being read in this process is removed when the last reader has ended.
class CRadosStore final : public IObjectStore {
 public:
  // `notes` is the folder for names of new bytes; null unless the store is served.
  CRadosStore(std::shared_ptr<CRadosPool> pool, std::unique_ptr<HostSystem::IFolder> notes);

  // Takes over what earlier runs left unfinished. It must be called once, before everything else, on a store that is
  // served. Returns 0 or errno.
  int Load();

  EStoreResult SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) override;
  bool MakeDurable(const std::vector<std::string_view>& statements, std::string& error) override;
  EStoreResult SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) override;
  EStoreResult SaveNamed(const StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) override;
  EStoreResult ReadWhole(const StoredName& name, ReadBuffer& buffer) override;
  EStoreResult ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size, ReadBuffer& buffer) override;
  EStoreResult Look() override;
  // A large chunk is read from several places of the pool at once.
  std::uint32_t DownloadChunk() const override { return 0; }
  EStoreResult Remove(const StoredName& name) override;
  EStoreResult BeginRead(const StoredName& name) override;
  void EndRead(const StoredName& name) override;
  bool IsPicture(const StoredName& name) const override;
  bool ForEach(EContent content, const std::function<bool(const StoredEntry&)>& visitor) override;
  EStoreResult RemovePath(const std::string& path) override;
  EStoreResult GetSize(const StoredName& name, std::uint64_t& size) override;
  std::vector<NewBytes> GetNew(std::int64_t seconds) const override;
  bool IsNew(const StoredName& name) const override;
  void TouchNew(const std::vector<StoredName>& names) override;
  void ForgetNew(const std::vector<StoredName>& names) override;
  EStoreResult FreeNew(const StoredName& name) override;
  void Tidy(const std::function<bool()>& is_stopping) override;
  bool LookAgain(std::vector<StoredName>& new_names) override;

 private:
  enum class EThorough { kNo, kIfHeadless };

  bool IsMine(const StoredName& name) const;
  EStoreResult SaveNew(EContent content, std::uint64_t offset, std::string_view data, StoredName& name);
  EStoreResult RemoveUnlessRead(const StoredName& name, EThorough thorough);
  int RemoveNow(const StoredName& name, EThorough thorough);
  int NoteRemoval(const StoredName& name);
  EStoreResult Failed(const char* what, const StoredName& name, int error) const;

  const std::shared_ptr<CRadosPool> pool_;
  const std::unique_ptr<HostSystem::IFolder> notes_;
  std::unique_ptr<CNewBytesLog> new_;  // null unless the store is served
  CRadosChunks chunks_;
  CHeldNames held_;
  CReadCache cache_;
};

// Gives what the catalogue needs to turn location texts into storage paths. Pictures are left out: they have no row,
// and only the host removes them.
std::vector<VolumeRow> RadosStoreVolumes();

// Opens the store. The current folder must be the data folder. Throws CStartFailure with kExitFailed.
std::unique_ptr<IObjectStore> OpenRadosStore(std::shared_ptr<CRadosPool> pool, EStoreUse use);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_RADOS_STORE_H
