// Shared libraries that a program looks for while it runs, because it also works without them. Threads: any.
#ifndef TANSY_HOST_SYSTEM_SHARED_LIBRARY_H
#define TANSY_HOST_SYSTEM_SHARED_LIBRARY_H

#include <string>

namespace HostSystem {

// Loads a library by its file name, from where the system's loader looks for libraries. It stays loaded for the life of
// the process. Returns null, with the system's reason in `error`, when it cannot be loaded.
void* LoadSharedLibrary(const std::string& name, std::string& error);

// Returns null when the library has no such function.
void* FindFunction(void* library, const char* name);

}  // namespace HostSystem

#endif  // TANSY_HOST_SYSTEM_SHARED_LIBRARY_H
