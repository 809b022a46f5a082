// What one client saw of one operation on one key.
#ifndef TANSY_TESTS_PROVE_MODEL_OPERATION_H
#define TANSY_TESTS_PROVE_MODEL_OPERATION_H

#include <cstdint>
#include <string>

namespace prove {

// Names one version of one object, in all of a run; never 0.
using Version = std::uint64_t;
inline constexpr Version kAbsent = 0;

enum class EKind {
  kWrite,     // the key holds `version` from now on; kAbsent: it holds nothing, whether it held something or not
  kCreate,    // the key held nothing, and holds `version` from now on
  kRemove,    // the key held something, and holds nothing from now on
  kRead,      // the key holds `version`; kAbsent: nothing
  kSee,       // the key holds something
  kReplace,   // the key held `expected`, and holds `version` from now on
  kSeeOther,  // the key does not hold `version`
};

struct Operation {
  std::string key;
  EKind kind = EKind::kRead;
  Version version = kAbsent;
  int client = 0;
  // Nanoseconds of the run's clock. The operation took effect between the two, at one moment.
  std::int64_t begun = 0;
  std::int64_t ended = 0;
  // The client got no answer that says what became of it: it took effect between the two moments, or never.
  bool is_unknown = false;
  Version expected = kAbsent;
  int node = 0;  // of several that serve one catalogue
  // Seen in what a node remembers. Other operations ask the database, so that what they say is true at that moment.
  bool is_from_memory = false;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_OPERATION_H
