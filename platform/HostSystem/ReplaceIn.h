// The steps of replacing a file, the same on every system. Internal to HostSystem.
#ifndef TANSY_HOST_SYSTEM_REPLACE_IN_H
#define TANSY_HOST_SYSTEM_REPLACE_IN_H

#include <string>

#include "HostSystem/Files.h"

namespace HostSystem::details {

// As ReplaceFile, for a file of an open folder: writes another file beside it, makes that durable, and gives it the
// name. 0, or errno; the file is then as it was before.
int ReplaceIn(IFolder& folder, const std::string& name, const std::string& content);

}  // namespace HostSystem::details

#endif  // TANSY_HOST_SYSTEM_REPLACE_IN_H
