#include "FileVolume.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Tansy::Host {
namespace details {
namespace {

constexpr unsigned int kFilesInFolder = 1000;
constexpr unsigned int kFolderCount = 0x10000;
constexpr std::size_t kIdBytes = 16;

unsigned int RandomFolder() {
  unsigned char bytes[2] = {};
  RAND_bytes(bytes, sizeof bytes);  // any number will do
  return bytes[0] * 256U + bytes[1];
}

std::string FolderDigits(unsigned int number) {
  const unsigned char bytes[2] = {static_cast<unsigned char>(number >> 8), static_cast<unsigned char>(number & 255)};
  return HexText(bytes, sizeof bytes);
}

// Makes a folder unless it is there. Its parent is synced in both cases, because the process that made the folder may
// have ended before it did so.
int MakeFolder(HostSystem::IFolder& parent, const std::string& name, std::unique_ptr<HostSystem::IFolder>& folder) {
  const int error = parent.MakeFolder(name);
  if (error != 0 && error != EEXIST) {
    return error;
  }
  if (const int sync_error = parent.Sync()) {
    return sync_error;
  }
  return parent.OpenFolder(name, folder);
}

}  // namespace
}  // namespace details

int OpenVolumeFolder(HostSystem::IFolder& root, const std::string& path, std::unique_ptr<HostSystem::IFolder>& folder) {
  HostSystem::IFolder* parent = &root;
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    std::unique_ptr<HostSystem::IFolder> next;
    if (const int error = details::MakeFolder(*parent, path.substr(begin, end - begin), next)) {
      return error;
    }
    folder = std::move(next);
    parent = folder.get();
    begin = end + 1;
  }
  return 0;
}

CFileVolume::CFileVolume(HostSystem::IFolder& root, std::string key)
    : root_(root), key_(std::move(key)), folder_number_(details::RandomFolder()) {}

int CFileVolume::NewPlace(Place& place) {
  unsigned char id[details::kIdBytes];
  if (RAND_bytes(id, sizeof id) != 1) {
    return EIO;
  }
  place.name.id = HexText(id, sizeof id);
  place.name.volume = key_;

  const std::lock_guard lock(mutex_);
  place.name.folder = details::FolderDigits(folder_number_);  // the name is whole even when what follows fails
  if (folder_ == nullptr || files_in_folder_ >= details::kFilesInFolder) {
    if (const int error = OpenCurrentFolder()) {
      return error;
    }
  }
  ++files_in_folder_;
  place.name.folder = details::FolderDigits(folder_number_);
  place.folder = folder_;
  return 0;
}

int CFileVolume::OpenCurrentFolder() {
  const unsigned int number = folder_ == nullptr ? folder_number_ : (folder_number_ + 1) % details::kFolderCount;
  const std::string digits = details::FolderDigits(number);
  std::unique_ptr<HostSystem::IFolder> folder;
  const int error = OpenVolumeFolder(root_, key_ + "/" + digits.substr(0, 2) + "/" + digits.substr(2), folder);
  if (error == 0) {
    folder_ = std::move(folder);
    folder_number_ = number;
    files_in_folder_ = 0;
  }
  return error;
}

}  // namespace Tansy::Host
