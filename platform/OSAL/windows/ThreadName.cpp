#include <windows.h>

#include "OSAL/Osal.h"

void OSAL_SetThreadName(const char* name) {
  wchar_t cut[16] = {};
  for (int i = 0; i < 15 && name[i] != '\0'; ++i) {
    cut[i] = static_cast<unsigned char>(name[i]);
  }
  // A name that is refused is only missed by people who look for it.
  static_cast<void>(SetThreadDescription(GetCurrentThread(), cut));
}
