// Manual pages and the completion of the shell, made from the tables that --help prints.
#ifndef TANSY_HOST_MANUAL_PAGE_H
#define TANSY_HOST_MANUAL_PAGE_H

#include <string>
#include <vector>

namespace Tansy::Host {

// What --help says of the program or of one of its commands.
struct OptionDescription {
  std::string name;   // "--data"
  std::string value;  // "DIR"; empty for a flag
  std::string help;
};
struct CommandDescription {
  std::string name;  // empty for the program itself, which is the first
  std::string help;
  std::vector<OptionDescription> options;
};

// Gives "tansyd.8" or "tansyd.toml.5" in roff, or "bash", a script for bash; empty for any other name.
std::string ManualPage(const std::string& name, const std::vector<CommandDescription>& commands);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MANUAL_PAGE_H
