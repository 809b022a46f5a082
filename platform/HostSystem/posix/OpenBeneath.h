#ifndef TANSY_HOST_SYSTEM_POSIX_OPEN_BENEATH_H
#define TANSY_HOST_SYSTEM_POSIX_OPEN_BENEATH_H

#include <string>

namespace HostSystem::details {

// Returns true for one part of a name: it is not empty, not "." or "..", and holds no separator and no NUL.
bool IsPlainName(const std::string& name);

// Opens `name` below the folder `folder` without following any link. Returns 0 or errno: EINVAL for names that are not
// plain parts joined with "/", ELOOP or ENOTDIR where a link stands in the way.
int OpenBeneath(int folder, const std::string& name, int flags, unsigned int mode, int& descriptor);

// Does the same with one call per folder on the way, for systems that have no single call for it. `name` must consist
// of plain parts.
int WalkBeneath(int folder, const std::string& name, int flags, unsigned int mode, int& descriptor);

}  // namespace HostSystem::details

#endif  // TANSY_HOST_SYSTEM_POSIX_OPEN_BENEATH_H
