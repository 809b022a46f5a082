// The function that would have been called without this library.
#ifndef TANSY_TESTS_PROVE_POWER_CALLS_REAL_CALLS_H
#define TANSY_TESTS_PROVE_POWER_CALLS_REAL_CALLS_H

#include <dlfcn.h>

namespace prove {

template <class Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_CALLS_REAL_CALLS_H
