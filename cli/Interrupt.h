#ifndef TANSY_CLI_INTERRUPT_H
#define TANSY_CLI_INTERRUPT_H

namespace Tansy::Cli {

// From now on an interruption (Ctrl-C, a stop or hang-up signal) removes files that are half written and ends the
// program with kExitInterrupted. This is called once, before any other thread is made.
void EndCleanlyOnInterrupt();

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_INTERRUPT_H
