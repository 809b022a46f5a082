#include "StoragePlaces.h"

#include "FileStore.h"
#include "FolderPlace.h"
#include "Options.h"

namespace Tansy::Host {

std::unique_ptr<IStoragePlace> FindStoragePlace(const std::string& url) {
  return std::make_unique<CFolderPlace>(UrlPath(url));
}

std::vector<VolumeRow> StorageVolumes(const std::string& /*url*/) {
  return FileStoreVolumes();
}

}  // namespace Tansy::Host
