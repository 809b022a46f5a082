#ifndef TANSY_CLI_COMMAND_LINE_H
#define TANSY_CLI_COMMAND_LINE_H

#include <map>
#include <string>
#include <vector>

#include "CommandSpec.h"
#include "Settings.h"

namespace Tansy::Cli {

struct ParsedCommandLine {
  Globals globals;
  const CommandSpec* command = nullptr;  // null when there is only a text to print
  std::map<std::string, std::vector<std::string>> arguments;
  std::map<std::string, std::string> options;
  std::string print_only;  // help or version text
};

// Throws CFailure with kExitUsage.
ParsedCommandLine ParseCommandLine(int argc, const char* const* argv);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_COMMAND_LINE_H
