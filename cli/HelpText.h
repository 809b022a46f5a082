// The help texts in their different forms. All of them are made from the command table.
#ifndef TANSY_CLI_HELP_TEXT_H
#define TANSY_CLI_HELP_TEXT_H

#include <string>

#include "CommandSpec.h"

namespace Tansy::Cli {

// Gives what "tansy --help" prints.
std::string ProgramHelp();
// Gives what "tansy COMMAND --help" prints.
std::string CommandHelp(const CommandSpec& command);
// Gives what "tansy pic --help" prints.
std::string GroupHelp(const std::string& group);
// Gives a line like "tansy [options] put [--name KEY] FILE...".
std::string UsageLine(const CommandSpec& command);
// Gives the manual page in roff.
std::string ManualPage();

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_HELP_TEXT_H
