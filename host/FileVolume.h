#ifndef TANSY_HOST_FILE_VOLUME_H
#define TANSY_HOST_FILE_VOLUME_H

#include <memory>
#include <mutex>
#include <string>

#include "HostSystem/Files.h"
#include "StoredName.h"

namespace Tansy::Host {

// Hands out places for new files of one volume.
//
// Files that are made one after another lie in the same folder until it holds a thousand. Then the next of the 65,536
// folders takes over. So few folders are made, and the folder in use stays in memory and open. A process begins at a
// random folder, so that folders fill evenly over many starts. Threads: any.
class CFileVolume {
 public:
  CFileVolume(HostSystem::IFolder& root, std::string key);

  struct Place {
    std::shared_ptr<HostSystem::IFolder> folder;  // holds the file
    StoredName name;
  };

  // Gives a new name and the folder for it. Returns 0 or errno.
  int NewPlace(Place& place);
  const std::string& GetKey() const { return key_; }

 private:
  int OpenCurrentFolder();

  HostSystem::IFolder& root_;
  const std::string key_;

  std::mutex mutex_;  // guards what follows
  unsigned int folder_number_;
  unsigned int files_in_folder_ = 0;
  std::shared_ptr<HostSystem::IFolder> folder_;  // null until the first file
};

// Opens the folder "volume/ab/cd" and makes what is missing of it; what was made is durable. Returns 0 or errno.
int OpenVolumeFolder(HostSystem::IFolder& root, const std::string& path, std::unique_ptr<HostSystem::IFolder>& folder);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FILE_VOLUME_H
