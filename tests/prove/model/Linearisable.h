// Says whether what clients saw of a key can have happened in one order, each operation at one moment between its
// beginning and its end.
//
// The algorithm is the just-in-time linearisation of Gavin Lowe, "Testing for linearizability" (Concurrency and
// Computation: Practice and Experience, 2017), which goes back to Jeannette Wing and Chun Gong, "Testing and verifying
// concurrent objects" (Journal of Parallel and Distributed Computing, 1993). It goes through the beginnings and ends in
// the order of time and keeps every pair of a content of the key and a set of open operations that have taken effect.
#ifndef TANSY_TESTS_PROVE_MODEL_LINEARISABLE_H
#define TANSY_TESTS_PROVE_MODEL_LINEARISABLE_H

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Operation.h"

namespace prove {

// What a key may hold.
using Contents = std::set<Version>;

struct Contradiction {
  Operation operation;  // the first one that cannot have happened, by the order of the ends
  Contents possible;    // what the key can have held until then
};

// Looks at all operations on one key, in any order. `contents` is what the key may hold before the first one, and
// becomes what it may hold after the last one. At most 256 operations may be open at one moment; more throw
// std::length_error.
std::optional<Contradiction> FindContradiction(std::vector<Operation> operations, Contents& contents);

// One line for a person.
std::string Describe(const Contradiction& contradiction);
std::string Describe(const Operation& operation);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_LINEARISABLE_H
