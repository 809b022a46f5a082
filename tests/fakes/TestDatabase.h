// Which database the tests of this run use. A program whose tests fit several databases is run once for each; the
// variable TANSY_TEST_DATABASE says for which.
#ifndef TANSY_TESTS_FAKES_TEST_DATABASE_H
#define TANSY_TESTS_FAKES_TEST_DATABASE_H

#include <cstdlib>
#include <string>

namespace Tansy::Tests {

inline bool IsOnPostgresql() {
  const char* const name = std::getenv("TANSY_TEST_DATABASE");
  return name != nullptr && std::string(name) == "postgresql";
}

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_TEST_DATABASE_H
