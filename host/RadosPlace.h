#ifndef TANSY_HOST_RADOS_PLACE_H
#define TANSY_HOST_RADOS_PLACE_H

#include <memory>
#include <string>

#include "RadosLock.h"
#include "RadosPool.h"
#include "RadosUrl.h"
#include "StoragePlace.h"

namespace Tansy::Host {

// Stored bytes in a pool of a Ceph cluster. The id is its object "store.id". The current folder must be the data
// folder.
class CRadosPlace final : public IStoragePlace {
 public:
  explicit CRadosPlace(const RadosUrl& url);

  std::string Describe() const override { return pool_->Describe(); }
  std::string Doubt() const override { return "is it the right pool?"; }
  std::string HowToSetId(const std::string& id) const override;
  bool Exists() override { return true; }
  int ReadId(std::string& text) override;
  int WriteId(const std::string& text) override;
  int RemoveId() override;
  void ExpectFree() override;
  void Lock() override;
  void Share() override;
  bool IsInUse() override;
  std::unique_ptr<IObjectStore> Open(bool full_durability, EStoreUse use) override;

 private:
  void Expect(int error, const std::string& holder) const;

  const std::shared_ptr<CRadosPool> pool_;
  CRadosLock lock_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_RADOS_PLACE_H
