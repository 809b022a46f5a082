#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <list>
#include <utility>

#include "Commands.h"
#include "Failure.h"
#include "HelpText.h"
#include "Output.h"
#include "Suggestion.h"

namespace Tansy::Cli {
namespace details {
namespace {

// CLI11 stores here what it parses for one command; the objects must not move while it does so.
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
    spec.many ? option->join('\n') : option->take_last();
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

// Gives the subcommand object of a group, and makes it when it is first needed.
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
    } else if (name == "--verbose") {
      globals.verbose = given;
    }
  }
  return globals;
}

// Words behind "--" are no options, whatever they begin with. After a command's first argument, CLI11 would still take
// them for options of the program. So they get a mark in front, which is removed after parsing.
constexpr char kPlainWord[] = "\x01plain:";

std::string WithoutMark(const std::string& word) {
  return word.starts_with(kPlainWord) ? word.substr(sizeof(kPlainWord) - 1) : word;
}

void MarkPlainWords(std::vector<std::string>& words) {
  const auto end_of_options = std::find(words.begin(), words.end(), "--");
  if (end_of_options != words.end()) {
    for (auto word = words.erase(end_of_options); word != words.end(); ++word) {
      word->insert(0, kPlainWord);
    }
  }
}

void TakeCommand(const Slots& slots, ParsedCommandLine& line) {
  line.command = slots.command;
  auto argument = slots.arguments.begin();
  for (const ArgumentSpec& spec : slots.command->arguments) {
    std::vector<std::string>& values = line.arguments[spec.name] = *argument++;
    std::transform(values.begin(), values.end(), values.begin(), WithoutMark);
  }
  for (const auto& [option, value] : slots.options) {
    if (option->count() > 0) {
      line.options[option->get_name()] = value;
    }
  }
}

// Gives the help that was asked for: of the command or group named before --help, else of the program.
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

// Gives "did you mean ...? " when a word looks like one of those that are known here.
std::string DidYouMean(const std::string& typed, const std::vector<std::string>& words) {
  const std::string word = Suggest(typed, words);
  return word.empty() ? "" : "did you mean " + word + "? ";
}

std::vector<std::string> CommandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands({})) {
    names.push_back(command->get_name());
  }
  return names;
}

// Gives the option names of the program and of the command or group that was named.
std::vector<std::string> OptionNames(const CLI::App& program, const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* owner : {&program, &app}) {
    for (const CLI::Option* option : owner->get_options()) {
      if (const std::string name = option->get_name(); IsOption(name)) {
        names.push_back(name);
      }
    }
  }
  return names;
}

// Says what is wrong with the words of a command line. The parser reports missing words first. A word that nobody
// understood is most often the reason, so that word is reported first here.
CFailure WrongUse(const CLI::App& program, const CLI::ParseError& error) {
  const CLI::App* app = &program;
  std::string named = "tansy";
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
    named += " " + app->get_name();
  }
  const bool is_command = app->get_subcommands({}).empty();
  const std::vector<std::string> unknown = program.remaining(true);
  const std::string how = "'" + named + " --help' " + (is_command ? "says how it is used" : "lists the commands");
  if (!is_command && !unknown.empty() && !IsOption(unknown.front())) {
    return {kExitUsage, "there is no command \"" + Printable(WithoutMark(unknown.front())) + "\"",
            DidYouMean(unknown.front(), CommandNames(*app)) + how};
  }
  const auto option = std::find_if(unknown.begin(), unknown.end(), IsOption);
  if (option != unknown.end()) {
    return {kExitUsage, "there is no option " + Printable(*option),
            DidYouMean(option->substr(0, option->find('=')), OptionNames(program, *app)) + how +
                (is_command ? "; names with a leading dash follow --" : "")};
  }
  if (!unknown.empty()) {
    return {kExitUsage, "one argument too many: \"" + Printable(WithoutMark(unknown.front())) + "\"", how};
  }
  if (!is_command && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
    return {kExitUsage, "no command is given", how};
  }
  return {kExitUsage, OneLine(error.what()), how};
}

// Makes "tansy help put" mean the same as "tansy put --help".
std::vector<std::string> WithHelpAsOption(int argc, const char* const* argv) {
  std::vector<std::string> words(argv, argv + argc);
  if (words.size() > 1 && words[1] == "help") {
    words.erase(words.begin() + 1);
    words.emplace_back("--help");
  }
  return words;
}

}  // namespace
}  // namespace details

ParsedCommandLine ParseCommandLine(int argc, const char* const* argv) {
  ParsedCommandLine line;
  CLI::App program("", "tansy");
  program.allow_windows_style_options(false);  // a slash begins the path of an object on every system
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
    std::vector<std::string> words = details::WithHelpAsOption(argc, argv);
    details::MarkPlainWords(words);
    std::vector<const char*> pointers;
    pointers.reserve(words.size());
    for (const std::string& word : words) {
      pointers.push_back(word.c_str());
    }
    program.parse(static_cast<int>(pointers.size()), pointers.data());
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
