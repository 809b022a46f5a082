#include "FolderPlace.h"

#include <cerrno>

#include "FileStore.h"
#include "HostSystem/Files.h"
#include "Locks.h"

namespace Tansy::Host {

std::string CFolderPlace::HowToSetId(const std::string& id) const {
  return "is the right folder mounted? If it is, write " + id + " into " + IdPath();
}

bool CFolderPlace::Exists() {
  return HostSystem::GetPathKind(folder_) != HostSystem::EPathKind::kMissing;
}

int CFolderPlace::ReadId(std::string& text) {
  return HostSystem::ReadWholeFile(IdPath(), kMostId, text);
}

int CFolderPlace::WriteId(const std::string& text) {
  const int error = HostSystem::MakeFolders(folder_);
  return error != 0 ? error : HostSystem::ReplaceFile(IdPath(), text);
}

int CFolderPlace::RemoveId() {
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> folder = HostSystem::OpenFolder(folder_, error);
  if (folder != nullptr) {
    error = folder->Remove("store.id");
  }
  return error == ENOENT ? 0 : error;
}

void CFolderPlace::ExpectFree() {
  ExpectStorageFree(folder_);
}

void CFolderPlace::Lock() {
  LockStorage(folder_, lock_);
}

void CFolderPlace::Share() {
  ShareStorage(folder_, lock_);
}

bool CFolderPlace::IsInUse() {
  return IsStorageInUse(folder_);
}

std::unique_ptr<IObjectStore> CFolderPlace::Open(bool full_durability, EStoreUse use) {
  return OpenFileStore(folder_, full_durability, use);
}

}  // namespace Tansy::Host
