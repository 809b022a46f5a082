#ifndef TANSY_TESTS_FUZZ_REQUIRE_H
#define TANSY_TESTS_FUZZ_REQUIRE_H

#include <cstdlib>

// Ends the program, which is how a fuzzer learns that an input breaks a promise.
inline void Require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

#endif  // TANSY_TESTS_FUZZ_REQUIRE_H
