#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <list>
#include <utility>

#include "Commands.h"
#include "Failure.h"
#include "HelpText.h"
#include "Output.h"

namespace Tansy::Cli {
namespace details {
namespace {

// Where CLI11 puts what it parses for one command; the pieces must not move while it does.
struct Slots {
  const CommandSpec* command = nullptr;
  CLI::App* app = nullptr;
  std::list<std::vector<std::string>> arguments;
  std::list<std::pair<CLI::Option*, std::string>> options;
};

std::string OneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  while (!text.empty() && text.back() == ' ') {
    text.pop_back();
  }
  return text;
}

void AddOptions(CLI::App& app, const std::vector<OptionSpec>& specs,
                std::list<std::pair<CLI::Option*, std::string>>& options) {
  for (const OptionSpec& spec : specs) {
    auto& [option, value] = options.emplace_back(nullptr, "");
    option = spec.value_name == nullptr ? app.add_flag(spec.name) : app.add_option(spec.name, value);
    option->take_last();
  }
}

void AddArguments(CLI::App& app, const CommandSpec& command, std::list<std::vector<std::string>>& arguments) {
  for (const ArgumentSpec& spec : command.arguments) {
    CLI::Option* option = app.add_option(spec.name, arguments.emplace_back());
    option->required(spec.required)->allow_extra_args(spec.many);
    option->expected(1, spec.many ? CLI::detail::expected_max_vector_size : 1);
    if (!spec.choices.empty()) {
      option->check(CLI::IsMember(spec.choices));
    }
  }
}

// The subcommand object of a group, made when it is first needed.
CLI::App& GroupApp(CLI::App& program, const std::string& group) {
  if (group.empty()) {
    return program;
  }
  try {
    return *program.get_subcommand(group);
  } catch (const CLI::OptionNotFound&) {
    CLI::App* app = program.add_subcommand(group);
    app->require_subcommand(1);
    app->fallthrough();
    return *app;
  }
}

Globals ToGlobals(const std::list<std::pair<CLI::Option*, std::string>>& options) {
  Globals globals;
  for (const auto& [option, value] : options) {
    const std::string name = option->get_name();
    const bool given = option->count() > 0;
    if (name == "--server") {
      globals.server = value;
    } else if (name == "--pool") {
      globals.pool = value;
    } else if (name == "--data") {
      globals.data = value;
    } else if (name == "--ca") {
      globals.ca = value;
    } else if (name == "--insecure") {
      globals.insecure = given;
    } else if (name == "--json") {
      globals.json = given;
    } else if (name == "--quiet") {
      globals.quiet = given;
    }
  }
  return globals;
}

void TakeCommand(const Slots& slots, ParsedCommandLine& line) {
  line.command = slots.command;
  auto argument = slots.arguments.begin();
  for (const ArgumentSpec& spec : slots.command->arguments) {
    line.arguments[spec.name] = *argument++;
  }
  for (const auto& [option, value] : slots.options) {
    if (option->count() > 0) {
      line.options[option->get_name()] = value;
    }
  }
}

// The help that was asked for: of the command or group that was named before --help, else of the program.
std::string HelpFor(const CLI::App& program, const std::list<Slots>& commands) {
  for (const Slots& slots : commands) {
    if (slots.app->parsed()) {
      return CommandHelp(*slots.command);
    }
  }
  const std::vector<CLI::App*> groups = program.get_subcommands();
  return groups.empty() ? ProgramHelp() : GroupHelp(groups.front()->get_name());
}

bool IsOption(const std::string& word) {
  return word.size() > 1 && word.front() == '-';
}

// What is wrong with the words of a command line. The parser looks at what is missing first; people would rather hear
// of the word that nobody understood, because it is most often the reason.
CFailure WrongUse(const CLI::App& program, const CLI::ParseError& error) {
  const CLI::App* app = &program;
  std::string named = "tansy";
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
    named += " " + app->get_name();
  }
  const bool is_command = app->get_subcommands({}).empty();
  std::vector<std::string> unknown = program.remaining(true);
  unknown.erase(std::find(unknown.begin(), unknown.end(), "--"), unknown.end());
  const std::string how = "'" + named + " --help' " + (is_command ? "says how it is used" : "lists the commands");
  if (!is_command && !unknown.empty() && !IsOption(unknown.front())) {
    return {kExitUsage, "there is no command \"" + Printable(unknown.front()) + "\"", how};
  }
  const auto option = std::find_if(unknown.begin(), unknown.end(), IsOption);
  if (option != unknown.end()) {
    return {kExitUsage, "there is no option " + Printable(*option),
            how + (is_command ? "; names with a leading dash follow --" : "")};
  }
  if (!unknown.empty()) {
    return {kExitUsage, "one argument too many: \"" + Printable(unknown.front()) + "\"", how};
  }
  if (!is_command && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
    return {kExitUsage, "no command is given", how};
  }
  return {kExitUsage, OneLine(error.what()), how};
}

// "tansy help put" asks for what "tansy put --help" prints.
std::vector<const char*> WithHelpAsOption(int argc, const char* const* argv) {
  std::vector<const char*> words(argv, argv + argc);
  if (words.size() > 1 && std::string(words[1]) == "help") {
    words.erase(words.begin() + 1);
    words.push_back("--help");
  }
  return words;
}

}  // namespace
}  // namespace details

ParsedCommandLine ParseCommandLine(int argc, const char* const* argv) {
  ParsedCommandLine line;
  CLI::App program("", "tansy");
  program.set_version_flag("--version", "tansy " TANSY_VERSION);
  program.require_subcommand(1);
  std::list<std::pair<CLI::Option*, std::string>> global_options;
  details::AddOptions(program, GlobalOptions(), global_options);

  std::list<details::Slots> commands;
  for (const CommandSpec& command : AllCommands()) {
    details::Slots& slots = commands.emplace_back();
    slots.command = &command;
    slots.app = details::GroupApp(program, command.group).add_subcommand(command.name);
    slots.app->fallthrough();  // options of the program may follow the command
    details::AddOptions(*slots.app, command.options, slots.options);
    details::AddArguments(*slots.app, command, slots.arguments);
  }

  try {
    const std::vector<const char*> words = details::WithHelpAsOption(argc, argv);
    program.parse(static_cast<int>(words.size()), words.data());
  } catch (const CLI::CallForHelp&) {
    line.print_only = details::HelpFor(program, commands);
    return line;
  } catch (const CLI::CallForVersion& version) {
    line.print_only = std::string(version.what()) + "\n";
    return line;
  } catch (const CLI::ParseError& error) {
    throw details::WrongUse(program, error);
  }
  line.globals = details::ToGlobals(global_options);
  for (const details::Slots& slots : commands) {
    if (slots.app->parsed()) {
      details::TakeCommand(slots, line);
    }
  }
  return line;
}

}  // namespace Tansy::Cli
