#ifndef TANSY_CLI_APP_H
#define TANSY_CLI_APP_H

namespace Tansy::Cli {

// Runs the whole program: reads the command line, runs the command, and says on standard error what failed. Returns the
// exit code. It is called once, from the first thread.
int Run(int argc, const char* const* argv);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_APP_H
