#include "Completion.h"

#include <set>
#include <vector>

#include "Commands.h"

namespace Tansy::Cli {
namespace details {
namespace {

std::string Joined(const std::vector<std::string>& words) {
  std::string joined;
  for (const std::string& word : words) {
    joined += (joined.empty() ? "" : " ") + word;
  }
  return joined;
}

std::vector<std::string> Names(const std::vector<OptionSpec>& options) {
  std::vector<std::string> names;
  names.reserve(options.size());
  for (const OptionSpec& option : options) {
    names.emplace_back(option.name);
  }
  return names;
}

// Gives the options whose value is the next word.
std::vector<std::string> NamesWithValue() {
  std::set<std::string> names;
  const auto collect = [&](const std::vector<OptionSpec>& options) {
    for (const OptionSpec& option : options) {
      if (option.value_name != nullptr) {
        names.insert(option.name);
      }
    }
  };
  collect(GlobalOptions());
  for (const CommandSpec& command : AllCommands()) {
    collect(command.options);
  }
  return {names.begin(), names.end()};
}

// Gives the words that can follow the program's name, or a group's.
std::vector<std::string> FirstWords(const std::string& group) {
  std::vector<std::string> words;
  std::set<std::string> groups;
  for (const CommandSpec& command : AllCommands()) {
    if (group == command.group) {
      words.emplace_back(command.name);
    } else if (group.empty() && groups.insert(command.group).second) {
      words.emplace_back(command.group);
    }
  }
  return words;
}

std::set<std::string> Groups() {
  std::set<std::string> groups;
  for (const CommandSpec& command : AllCommands()) {
    if (command.group[0] != '\0') {
      groups.insert(command.group);
    }
  }
  return groups;
}

std::vector<std::string> Choices(const CommandSpec& command) {
  std::vector<std::string> choices;
  for (const ArgumentSpec& argument : command.arguments) {
    choices.insert(choices.end(), argument.choices.begin(), argument.choices.end());
  }
  return choices;
}

bool TakesFiles(const CommandSpec& command) {
  for (const ArgumentSpec& argument : command.arguments) {
    if (argument.complete == EComplete::kFiles) {
      return true;
    }
  }
  return false;
}

std::string SingleQuoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted += c == '\'' ? "'\\''" : std::string(1, c);
  }
  return quoted + "'";
}

// The same function serves bash and, through its bash emulation, zsh.
std::string CompletionFunction() {
  std::string valued;
  for (const std::string& name : NamesWithValue()) {
    valued += (valued.empty() ? "" : "|") + name;
  }
  std::string script =
      "_tansy() {\n"
      "  local word=\"${COMP_WORDS[COMP_CWORD]}\" previous=\"${COMP_WORDS[COMP_CWORD-1]}\" command=\"\" i\n"
      "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
      "    case \"${COMP_WORDS[i]}\" in\n"
      "      " +
      valued +
      ") ((i++)) ;;\n"
      "      -*) ;;\n"
      "      *) command=\"${command:+$command }${COMP_WORDS[i]}\"\n"
      "         case \"$command\" in ";
  std::string groups;
  for (const std::string& group : Groups()) {
    groups += (groups.empty() ? "" : "|") + group;
  }
  script += groups +
            ") ;; *) break ;; esac ;;\n"
            "    esac\n"
            "  done\n"
            "  local words=\"" +
            Joined(Names(GlobalOptions())) +
            " --help\" files=\"\"\n"
            "  case \"$previous\" in\n"
            "    --ca|--data) local IFS=$'\\n'; COMPREPLY=($(compgen -f -- \"$word\")); return ;;\n"
            "    " +
            valued +
            ") return ;;\n"
            "  esac\n"
            "  case \"$command\" in\n"
            "    \"\") words=\"" +
            Joined(FirstWords("")) + " $words --version\" ;;\n";
  for (const std::string& group : Groups()) {
    script += "    \"" + group + "\") words=\"" + Joined(FirstWords(group)) + " $words\" ;;\n";
  }
  for (const CommandSpec& command : AllCommands()) {
    std::vector<std::string> words = Choices(command);
    const std::vector<std::string> options = Names(command.options);
    words.insert(words.end(), options.begin(), options.end());
    script += "    \"" + command.FullName() + "\") words=\"" + Joined(words) + (words.empty() ? "" : " ") + "$words\"" +
              (TakesFiles(command) ? " files=1" : "") + " ;;\n";
  }
  return script +
         "  esac\n"
         "  COMPREPLY=($(compgen -W \"$words\" -- \"$word\"))\n"
         "  [[ -z \"$files\" || \"$word\" == -* ]] && return 0\n"
         "  local IFS=$'\\n'\n"  // names with blanks are one word each
         "  COMPREPLY=($(compgen -f -- \"$word\"))\n"
         "  return 0\n"
         "}\n";
}

void AddFishOptions(const std::vector<OptionSpec>& options, const std::string& condition, std::string& script) {
  for (const OptionSpec& option : options) {
    const std::string name = option.name;
    const bool is_long = name.starts_with("--");
    script += "complete -c tansy" + condition + (is_long ? " -l " : " -s ") + name.substr(is_long ? 2 : 1) +
              (option.value_name == nullptr ? "" : " -r") + " -d " + SingleQuoted(option.help) + "\n";
  }
}

}  // namespace
}  // namespace details

std::string BashCompletion() {
  return "# Completion of tansy for bash.\n" + details::CompletionFunction() +
         "complete -o filenames -F _tansy tansy\n";
}

std::string ZshCompletion() {
  return "#compdef tansy\n# Completion of tansy for zsh.\nautoload -U +X bashcompinit && bashcompinit\n" +
         details::CompletionFunction() + "complete -o filenames -F _tansy tansy\n";
}

std::string FishCompletion() {
  std::string script = "# Completion of tansy for fish.\ncomplete -c tansy -f\n";
  details::AddFishOptions(GlobalOptions(), "", script);
  for (const std::string& group : details::Groups()) {
    script += "complete -c tansy -n __fish_use_subcommand -a " + group + "\n";
  }
  for (const CommandSpec& command : AllCommands()) {
    const std::string group = command.group;
    const std::string before = group.empty() ? "__fish_use_subcommand"
                                             : "'__fish_seen_subcommand_from " + group +
                                                   "; and not __fish_seen_subcommand_from " +
                                                   details::Joined(details::FirstWords(group)) + "'";
    script += "complete -c tansy -n " + before + " -a " + command.name + " -d " +
              details::SingleQuoted(command.summary) + "\n";
    const std::string after = " -n '" +
                              (group.empty() ? std::string() : "__fish_seen_subcommand_from " + group + "; and ") +
                              "__fish_seen_subcommand_from " + command.name + "'";
    details::AddFishOptions(command.options, after, script);
    for (const std::string& choice : details::Choices(command)) {
      script += "complete -c tansy" + after + " -a " + choice + "\n";
    }
    if (details::TakesFiles(command)) {
      script += "complete -c tansy" + after + " -F\n";
    }
  }
  return script;
}

}  // namespace Tansy::Cli
