#include <pthread.h>

#include <cstdio>

#include "OSAL/Osal.h"

void OSAL_SetThreadName(const char* name) {
  // Linux refuses a longer name instead of cutting it.
  char cut[16];
  static_cast<void>(std::snprintf(cut, sizeof cut, "%s", name));
#if defined(__APPLE__)
  static_cast<void>(pthread_setname_np(cut));
#else
  static_cast<void>(pthread_setname_np(pthread_self(), cut));
#endif
}
