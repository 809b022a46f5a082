// Lets file calls fail as the test's plan says. Part of the library that a test puts in front of a server's file calls.
#ifndef TANSY_TESTS_PROVE_POWER_CALLS_FAULTS_H
#define TANSY_TESTS_PROVE_POWER_CALLS_FAULTS_H

#include <cstddef>

#include "FaultPlan.h"

namespace prove {

// What becomes of one call.
struct Verdict {
  int error = 0;  // not 0: the call does nothing and gives this errno
  bool is_short = false;
  bool is_told = true;  // otherwise the call does nothing and says that it did
};

// Counts a call on the watched folder. A slow one waits here.
Verdict Count(ECall call);

// The number of bytes that a call of `size` bytes moves.
inline std::size_t Moved(const Verdict& verdict, std::size_t size) {
  return verdict.is_short && size > 1 ? size / 2 : size;
}

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_CALLS_FAULTS_H
