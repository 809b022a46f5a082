// Completion scripts, made from the command table.
#ifndef TANSY_CLI_COMPLETION_H
#define TANSY_CLI_COMPLETION_H

#include <string>

namespace Tansy::Cli {

std::string BashCompletion();
std::string ZshCompletion();
std::string FishCompletion();

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_COMPLETION_H
