#include "FilePlaces.h"

#include "Volumes.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kPoolFolder = "0000";

bool IsFromPool(const std::string& volume) {
  return volume == kPoolObjects || volume == kPoolPictures;
}

}  // namespace
}  // namespace details

std::string FileFolderOf(const StoredName& name) {
  if (details::IsFromPool(name.volume)) {
    return name.volume + "/" + name.id.substr(0, 2) + "/00";
  }
  const std::string volume = name.volume == kSmallBodies ? kMovedBodies : name.volume;
  return volume + "/" + name.folder.substr(0, 2) + "/" + name.folder.substr(2);
}

std::string FilePathOf(const StoredName& name) {
  return FileFolderOf(name) + "/" + FileName(name);
}

StoredName NameOfFile(const std::string& volume, const std::string& folder, const std::string& id) {
  if (details::IsFromPool(volume)) {
    return {volume, details::kPoolFolder, id};
  }
  return {volume == kMovedBodies ? kSmallBodies : volume, folder, id};
}

}  // namespace Tansy::Host
