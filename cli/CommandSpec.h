// The description of a command as data. The parser, --help, the manual page and the completions all read it from here.
#ifndef TANSY_CLI_COMMAND_SPEC_H
#define TANSY_CLI_COMMAND_SPEC_H

#include <map>
#include <string>
#include <vector>

namespace Tansy::Cli {

struct Globals;

// Says what completes a word on the command line.
enum class EComplete { kNothing, kFiles };

struct ArgumentSpec {
  const char* name;  // "FILE"
  const char* help;
  bool required = true;
  bool many = false;  // only the last argument of a command may have it
  EComplete complete = EComplete::kNothing;
  std::vector<std::string> choices = {};  // when there are any, no other value is allowed
  const char* behind = "";                // what the usage line shows behind it: " [FILE]"
};

struct OptionSpec {
  const char* name;        // "--range"
  const char* value_name;  // "A-B"; null for a flag
  const char* help;
  bool many = false;  // it may be given several times; its value is then all of them, with line ends between
};

struct ExampleSpec {
  const char* command;
  const char* explanation;
};

// One use of a command.
struct CommandCall {
  const Globals& globals;
  std::map<std::string, std::vector<std::string>> arguments;  // by the argument's name
  std::map<std::string, std::string> options;  // options that were given, by name; flags have an empty value

  // Gives the argument's only value, or "" when it was not given.
  std::string Argument(const std::string& name) const {
    const auto found = arguments.find(name);
    return found == arguments.end() || found->second.empty() ? std::string() : found->second.front();
  }
  const std::vector<std::string>& Arguments(const std::string& name) const { return arguments.at(name); }
  bool Has(const std::string& option) const { return options.count(option) != 0; }
  std::string Option(const std::string& option) const {
    const auto found = options.find(option);
    return found == options.end() ? std::string() : found->second;
  }
};

struct CommandSpec {
  const char* group;    // "" or the word before the name: "pic"
  const char* name;     // "put"
  const char* summary;  // one line, without a full stop
  const char* description;
  std::vector<ArgumentSpec> arguments;
  std::vector<OptionSpec> options;
  std::vector<ExampleSpec> examples;
  // Does the work and returns the exit code. Throws CFailure.
  int (*run)(const CommandCall& call);

  // Gives a name like "pic put".
  std::string FullName() const { return group[0] == '\0' ? name : std::string(group) + " " + name; }
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_COMMAND_SPEC_H
