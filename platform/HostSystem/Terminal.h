// What a command-line program asks about where its texts go.
// Threads: any. Nothing throws.
#ifndef TANSY_HOST_SYSTEM_TERMINAL_H
#define TANSY_HOST_SYSTEM_TERMINAL_H

namespace HostSystem {

enum class EStream { kInput, kOutput, kError };

// True when a person sits at the other end.
bool IsTerminal(EStream stream);

// Columns of the terminal behind standard error; 80 when nobody knows.
int TerminalWidth();

// Standard input and output carry bytes as they are, and streams that were closed stay unusable. Called before the
// first of them passes and before anything else is opened.
void MakeStreamsBinary();

}  // namespace HostSystem

#endif  // TANSY_HOST_SYSTEM_TERMINAL_H
