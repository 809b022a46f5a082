#ifndef TANSY_CLI_MODULE_LOG_SINK_H
#define TANSY_CLI_MODULE_LOG_SINK_H

#include <string>

namespace Tansy::Cli {

// Keeps the module's error lines instead of writing them: people get this program's own words.
void KeepModuleLog();

// The last error line that this thread's calls into the module have left; empties it.
std::string TakeModuleError();

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_MODULE_LOG_SINK_H
