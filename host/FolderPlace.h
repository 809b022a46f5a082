#ifndef TANSY_HOST_FOLDER_PLACE_H
#define TANSY_HOST_FOLDER_PLACE_H

#include <memory>
#include <string>
#include <utility>

#include "HostSystem/LockFile.h"
#include "StoragePlace.h"

namespace Tansy::Host {

// Stored bytes in a folder. The id is its file "store.id".
class CFolderPlace final : public IStoragePlace {
 public:
  explicit CFolderPlace(std::string folder) : folder_(std::move(folder)) {}

  std::string Describe() const override { return "storage folder " + folder_; }
  std::string Doubt() const override { return "is its disk mounted?"; }
  std::string HowToSetId(const std::string& id) const override;
  bool Exists() override;
  int ReadId(std::string& text) override;
  int WriteId(const std::string& text) override;
  int RemoveId() override;
  void ExpectFree() override;
  void Lock() override;
  void Share() override;
  bool IsInUse() override;
  std::unique_ptr<IObjectStore> Open(bool full_durability, EStoreUse use) override;

 private:
  std::string IdPath() const { return folder_ + "/store.id"; }

  const std::string folder_;
  HostSystem::CLockFile lock_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FOLDER_PLACE_H
