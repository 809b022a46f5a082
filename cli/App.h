#ifndef TANSY_CLI_APP_H
#define TANSY_CLI_APP_H

namespace Tansy::Cli {

// The whole program: reads the command line, runs the command, says on standard error what failed. Returns the exit
// code. Called once, from the first thread.
int Run(int argc, const char* const* argv);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_APP_H
