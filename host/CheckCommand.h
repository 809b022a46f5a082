#ifndef TANSY_HOST_CHECK_COMMAND_H
#define TANSY_HOST_CHECK_COMMAND_H

#include <iosfwd>

#include "CommandLine.h"
#include "DataFolder.h"
#include "Options.h"

namespace Tansy::Host {

// Runs `tansyd --check` and returns its exit code. Without --repair it only looks, whether a server runs or not. A
// repair locks what a server would lock; when a server runs, that server is asked to do the repair. Throws
// CStartFailure.
int RunCheckCommand(const CommandLine& line, const HostOptions& options, CDataFolder& folder, std::ostream& out);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CHECK_COMMAND_H
