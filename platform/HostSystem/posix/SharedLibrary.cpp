#include "HostSystem/SharedLibrary.h"

#include <dlfcn.h>

namespace HostSystem {

void* LoadSharedLibrary(const std::string& name, std::string& error) {
  void* library = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* reason = ::dlerror();
    error = reason == nullptr ? "unknown reason" : reason;
  }
  return library;
}

void* FindFunction(void* library, const char* name) {
  return ::dlsym(library, name);
}

}  // namespace HostSystem
