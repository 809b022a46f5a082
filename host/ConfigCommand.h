#ifndef TANSY_HOST_CONFIG_COMMAND_H
#define TANSY_HOST_CONFIG_COMMAND_H

#include <iosfwd>

#include "CommandLine.h"

namespace Tansy::Host {

// Runs `tansyd config print`, which shows each option in force and where it comes from, or `tansyd config check`, which
// only says whether a tansyd could start with them. Nothing is made, opened or started; the data folder may be missing.
// Secrets are shown as "...". Returns the exit code. Throws CStartFailure when the options make no sense.
int RunConfigCommand(const CommandLine& line, std::ostream& out);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CONFIG_COMMAND_H
