#ifndef TANSY_HOST_SYSTEM_WINDOWS_WINDOWS_ERROR_H
#define TANSY_HOST_SYSTEM_WINDOWS_WINDOWS_ERROR_H

namespace HostSystem {

// Gives the errno value that is nearest to a code of the system.
int ToErrno(unsigned long code);
// Gives the errno value of the calling thread's last failure.
int LastErrno();

}  // namespace HostSystem

#endif  // TANSY_HOST_SYSTEM_WINDOWS_WINDOWS_ERROR_H
