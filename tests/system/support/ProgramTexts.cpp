#include "support/ProgramTexts.h"

#include <unistd.h>

#include <cstring>

namespace system_tests {

std::vector<std::string> EnvironmentWithout(const std::set<std::string>& others) {
  std::vector<std::string> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string name(*variable, std::strcspn(*variable, "="));
    if (name.rfind("TANSY_", 0) != 0 && others.count(name) == 0) {
      variables.emplace_back(*variable);
    }
  }
  return variables;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace system_tests
