#include "HostSystem/SharedLibrary.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <filesystem>

#include "HostSystem/Files.h"
#include "WindowsError.h"

namespace HostSystem {

void* LoadSharedLibrary(const std::string& name, std::string& error) {
  const std::filesystem::path file(std::u8string(name.begin(), name.end()));
  const HMODULE library = ::LoadLibraryW(file.c_str());
  if (library == nullptr) {
    error = name + ": " + ErrorText(LastErrno());
  }
  return reinterpret_cast<void*>(library);
}

void* FindFunction(void* library, const char* name) {
  return reinterpret_cast<void*>(::GetProcAddress(reinterpret_cast<HMODULE>(library), name));
}

}  // namespace HostSystem
