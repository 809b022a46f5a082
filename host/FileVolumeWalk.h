#ifndef TANSY_HOST_FILE_VOLUME_WALK_H
#define TANSY_HOST_FILE_VOLUME_WALK_H

#include <functional>
#include <string>

#include "HostSystem/Files.h"
#include "ObjectStore.h"

namespace Tansy::Host {

// Shows every file below a volume's two levels of folders to `visitor`, until the visitor returns false. The visitor
// may remove the file. Files whose names this store does not use are left out. A volume that is not there yet has no
// files. Returns false when a folder cannot be read; the others are walked all the same.
bool WalkVolume(HostSystem::IFolder& root, const std::string& volume, EContent content,
                const std::function<bool(const StoredEntry&)>& visitor);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FILE_VOLUME_WALK_H
