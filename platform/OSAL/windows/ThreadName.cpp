#include <windows.h>

#include "OSAL/Osal.h"

namespace {

using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);

// The function is looked up by its name, because older systems and some compilers' headers lack it.
SetDescription FindSetDescription() {
  const HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
  const FARPROC found = kernel == nullptr ? nullptr : GetProcAddress(kernel, "SetThreadDescription");
  return reinterpret_cast<SetDescription>(reinterpret_cast<void*>(found));
}

}  // namespace

void OSAL_SetThreadName(const char* name) {
  static const SetDescription set_description = FindSetDescription();
  wchar_t cut[16] = {};
  for (int i = 0; i < 15 && name[i] != '\0'; ++i) {
    cut[i] = static_cast<unsigned char>(name[i]);
  }
  // A failure is ignored, because the name is only for people who look at the threads.
  if (set_description != nullptr) {
    static_cast<void>(set_description(GetCurrentThread(), cut));
  }
}
