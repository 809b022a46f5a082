// What clients are promised of several nodes on one catalogue, of which each remembers objects.
//
// Writes of all nodes happen in one order. A node that remembers nothing of a key asks the database, so that "nothing
// is there" is true at that moment. What it remembers may be some time behind, but never behind what the same node has
// shown before.
#ifndef TANSY_TESTS_PROVE_MODEL_NODE_MEMORY_H
#define TANSY_TESTS_PROVE_MODEL_NODE_MEMORY_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Operation.h"

namespace prove {

// The operations on one key with what was seen in memory moved back by `lag` nanoseconds: it was true at some moment
// between then and the answer.
std::vector<Operation> AsPromised(std::vector<Operation> operations, std::int64_t lag);

struct Forgotten {
  Operation read;   // shows what is certainly older than
  Operation shown;  // what had happened or was seen at the same node, and had ended before
};

// Looks at all operations on one key, in any order.
std::optional<Forgotten> FindForgotten(const std::vector<Operation>& operations);

// One line for a person.
std::string Describe(const Forgotten& forgotten);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_NODE_MEMORY_H
