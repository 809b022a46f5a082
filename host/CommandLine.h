#ifndef TANSY_HOST_COMMAND_LINE_H
#define TANSY_HOST_COMMAND_LINE_H

#include <string>

#include "Options.h"

namespace Tansy::Host {

struct CommandLine {
  OptionTexts texts;       // texts as given; no value has been checked yet
  bool check = false;      // compare catalogue and stored bytes, then end
  bool repair = false;     // with `check`: also free what nothing refers to
  bool force = false;      // with `repair`: free it even when it is much
  std::string print_only;  // help or version text to print; the program then ends
};

// Throws CStartFailure with kExitUsage.
CommandLine ParseCommandLine(int argc, const char* const* argv);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_COMMAND_LINE_H
