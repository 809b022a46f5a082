// What a program is started with, as exec takes it.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_PROGRAM_TEXTS_H
#define TANSY_TESTS_SYSTEM_SUPPORT_PROGRAM_TEXTS_H

#include <set>
#include <string>
#include <vector>

namespace system_tests {

// "NAME=value" for every variable of this process but those of the project, which would lead the program under test to
// somebody's own server, and those in `others`.
std::vector<std::string> EnvironmentWithout(const std::set<std::string>& others);

// One pointer a text, and a null pointer behind them; they live as long as the texts stay as they are.
std::vector<char*> Pointers(std::vector<std::string>& texts);

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_PROGRAM_TEXTS_H
