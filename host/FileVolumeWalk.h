#ifndef TANSY_HOST_FILE_VOLUME_WALK_H
#define TANSY_HOST_FILE_VOLUME_WALK_H

#include <functional>
#include <string>

#include "HostSystem/Files.h"
#include "ObjectStore.h"

namespace Tansy::Host {

// Shows every file below a volume's two levels of folders to `visitor`, which may remove it, until that returns false.
// Whatever is not called as this store calls its files is left out. A volume that is not there yet has no files. False
// when a folder cannot be read; the others are walked all the same.
bool WalkVolume(HostSystem::IFolder& root, const std::string& volume, EContent content,
                const std::function<bool(const StoredEntry&)>& visitor);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FILE_VOLUME_WALK_H
