#include "StoragePlaces.h"

#include "FileStore.h"
#include "FolderPlace.h"
#include "Options.h"
#include "RadosPlace.h"
#include "RadosStore.h"
#include "RadosUrl.h"

namespace Tansy::Host {

std::unique_ptr<IStoragePlace> FindStoragePlace(const std::string& url) {
  RadosUrl pool;
  if (ParseRadosUrl(url, pool)) {
    return std::make_unique<CRadosPlace>(pool);
  }
  return std::make_unique<CFolderPlace>(UrlPath(url));
}

std::vector<VolumeRow> StorageVolumes(const std::string& url) {
  return IsRadosUrl(url) ? RadosStoreVolumes() : FileStoreVolumes();
}

}  // namespace Tansy::Host
