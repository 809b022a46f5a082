#ifndef TANSY_HOST_MOVABLE_STORE_H
#define TANSY_HOST_MOVABLE_STORE_H

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "ObjectStore.h"
#include "StoreMirror.h"
#include "WriteGate.h"

namespace Tansy::Host {

// A store whose bytes can move to another one while both servers use it. Names stay what they are.
//
// It hands everything on to one store. While it mirrors, it writes to a second one too, so that what is still being
// uploaded is there as well. After the switch, the second store is the store, and the first one only serves reads that
// began there. A write that fails in the mirror alone has not failed, and a mirror that is silent keeps a write waiting
// for a moment only.
class CMovableStore final : public IObjectStore {
 public:
  explicit CMovableStore(std::shared_ptr<IObjectStore> store);

  EStoreResult SaveWhole(EContent content, const char* data, std::uint32_t size, StoredName& name) override;
  bool MakeDurable(const std::vector<std::string_view>& statements, std::string& error) override;
  EStoreResult SaveAt(StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) override;
  EStoreResult SaveNamed(const StoredName& name, std::uint64_t offset, const char* data, std::uint32_t size) override;
  EStoreResult ReadWhole(const StoredName& name, ReadBuffer& buffer) override;
  EStoreResult ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size, ReadBuffer& buffer) override;
  EStoreResult Remove(const StoredName& name) override;
  EStoreResult BeginRead(const StoredName& name) override;
  void EndRead(const StoredName& name) override;
  EStoreResult Look() override { return Now().Look(); }
  std::uint32_t DownloadChunk() const override { return Now().DownloadChunk(); }
  bool IsPicture(const StoredName& name) const override { return Now().IsPicture(name); }
  bool ForEach(EContent content, const std::function<bool(const StoredEntry&)>& visitor) override;
  EStoreResult RemovePath(const std::string& path) override;
  EStoreResult GetSize(const StoredName& name, std::uint64_t& size) override { return Now().GetSize(name, size); }
  std::vector<NewBytes> GetNew(std::int64_t seconds) const override { return Now().GetNew(seconds); }
  bool IsNew(const StoredName& name) const override { return Now().IsNew(name); }
  void TouchNew(const std::vector<StoredName>& names) override { Now().TouchNew(names); }
  void ForgetNew(const std::vector<StoredName>& names) override { Now().ForgetNew(names); }
  EStoreResult FreeNew(const StoredName& name) override;
  void Tidy(const std::function<bool()>& is_stopping) override { Now().Tidy(is_stopping); }
  bool LookAgain(std::vector<StoredName>& new_names) override { return Now().LookAgain(new_names); }

  // What follows is for the one thread that moves the bytes.

  IObjectStore& Now() const { return *now_.load(std::memory_order_acquire); }
  // Lets writes wait. Returns false, and lets them go on, when those under way have not ended within this time.
  bool HoldWrites(std::chrono::milliseconds wait) { return gate_.Hold(wait); }
  void ReleaseWrites() { gate_.Release(); }

  // These need held writes. Before the switch, the mirror must be idle; the switch ends the mirroring.
  void BeginMirror(std::unique_ptr<CStoreMirror> mirror);
  void Switch();
  // Ends the mirroring without a switch. Writes need not be held. It waits for what the mirror has begun to do.
  void EndMirror();
  // Says that a write to the mirror has failed, so that it is not complete.
  bool HasMirrorFailed() const { return mirror_ != nullptr && mirror_->HasFailed(); }
  // Returns true when the mirror has all that was written, at the latest after this time.
  bool WaitForMirror(std::chrono::milliseconds wait) const {
    return mirror_ == nullptr || mirror_->WaitUntilIdle(wait);
  }
  // Gives the pictures that were stored since the mirror began, or since the last call.
  std::vector<StoredName> TakeMirroredPictures();
  // Copies bytes that may be written to meanwhile, and reads the copies again. kMissing: there are none any more; every
  // other failure is the mirror's, or one of reading.
  EStoreResult CopyToMirror(const StoredName& name);

 private:
  std::mutex& LockOf(const StoredName& name);
  CStoreMirror::Ticket GiveToMirror(const StoredName& name, std::uint64_t offset, const char* data,
                                    std::uint32_t size) noexcept;
  EStoreResult CopyPiece(const StoredName& name, std::uint64_t offset, std::uint32_t& size);
  IObjectStore& StoreOfReader(const StoredName& name) const;
  IObjectStore& ForgetReader(const StoredName& name);

  CWriteGate gate_;
  std::vector<std::shared_ptr<IObjectStore>> stores_;  // all that were used, because reads may go on there
  std::atomic<IObjectStore*> now_;
  std::unique_ptr<CStoreMirror> mirror_;  // null: none; set while writes are held

  // One of these is held while bytes of a name are written or copied, and given to the mirror.
  std::array<std::mutex, 64> name_locks_;

  std::mutex pictures_mutex_;
  std::vector<StoredName> mirrored_pictures_;

  struct Readers {
    IObjectStore* store = nullptr;  // where they began
    std::size_t count = 0;
  };
  mutable std::mutex readers_mutex_;
  std::map<std::string, Readers> readers_;  // by id
  std::atomic<bool> has_switched_{false};
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVABLE_STORE_H
