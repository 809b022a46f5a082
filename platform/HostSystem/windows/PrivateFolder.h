#ifndef TANSY_HOST_SYSTEM_WINDOWS_PRIVATE_FOLDER_H
#define TANSY_HOST_SYSTEM_WINDOWS_PRIVATE_FOLDER_H

#include <filesystem>

namespace HostSystem {

// Makes one folder that only the user of this process, the system and its administrators may use, with all that will be
// in it. Returns 0 or an errno value.
int MakePrivateFolder(const std::filesystem::path& path);

}  // namespace HostSystem

#endif  // TANSY_HOST_SYSTEM_WINDOWS_PRIVATE_FOLDER_H
