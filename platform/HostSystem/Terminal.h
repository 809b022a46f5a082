// Functions by which a command-line program asks where its texts go.
// Threads: any. Nothing throws.
#ifndef TANSY_HOST_SYSTEM_TERMINAL_H
#define TANSY_HOST_SYSTEM_TERMINAL_H

namespace HostSystem {

enum class EStream { kInput, kOutput, kError };

// Returns true when the stream belongs to a terminal.
bool IsTerminal(EStream stream);

// Gives the columns of the terminal behind standard error; 80 when they are not known.
int TerminalWidth();

// Makes standard input and output carry bytes unchanged, and keeps streams that were closed unusable. It is called
// before the first byte passes and before anything else is opened.
void MakeStreamsBinary();

}  // namespace HostSystem

#endif  // TANSY_HOST_SYSTEM_TERMINAL_H
