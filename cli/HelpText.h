// Help texts in their several forms, all made from the command table.
#ifndef TANSY_CLI_HELP_TEXT_H
#define TANSY_CLI_HELP_TEXT_H

#include <string>

#include "CommandSpec.h"

namespace Tansy::Cli {

// What "tansy --help" prints.
std::string ProgramHelp();
// What "tansy COMMAND --help" prints.
std::string CommandHelp(const CommandSpec& command);
// What "tansy pic --help" prints.
std::string GroupHelp(const std::string& group);
// "tansy [options] put [--name KEY] FILE..."
std::string UsageLine(const CommandSpec& command);
// The manual page, in roff.
std::string ManualPage();

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_HELP_TEXT_H
