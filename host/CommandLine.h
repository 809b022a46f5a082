#ifndef TANSY_HOST_COMMAND_LINE_H
#define TANSY_HOST_COMMAND_LINE_H

#include <string>

#include "Options.h"

namespace Tansy::Host {

struct CommandLine {
  OptionTexts texts;       // as given; no value has been looked at
  bool check = false;      // compare catalogue and stored bytes, then end
  bool repair = false;     // and free what nothing refers to
  bool force = false;      // even if that is much
  std::string print_only;  // help or version text: print it and end
};

// Throws CStartFailure with kExitUsage.
CommandLine ParseCommandLine(int argc, const char* const* argv);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_COMMAND_LINE_H
