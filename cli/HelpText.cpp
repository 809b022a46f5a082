#include "HelpText.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "Commands.h"

namespace Tansy::Cli {
namespace details {
namespace {

using Rows = std::vector<std::pair<std::string, std::string>>;

constexpr char kSummary[] = "keeps files on an object server and brings them back";

// When the options would make a usage line longer than this, they are listed only below it.
constexpr std::size_t kLongestUsage = 72;

struct TextRow {
  const char* name;
  const char* text;
};

constexpr TextRow kEnvironment[] = {
    {"TANSY_SERVER", "as --server"},
    {"TANSY_S3_URL", "address of the S3 door of the server of TANSY_SERVER [two ports behind it]"},
    {"TANSY_POOL", "as --pool"},
    {"TANSY_DATA", "as --data"},
    {"TANSY_CA", "as --ca"},
    {"TANSY_ACCESS_KEY, TANSY_SECRET_KEY", "keys that requests are signed with"},
};

constexpr TextRow kExitCodes[] = {
    {"0", "done"},
    {"1", "failed"},
    {"2", "wrong use: options, arguments or settings"},
    {"3", "not found: object, bucket or local file"},
    {"4", "denied: keys or permissions"},
    {"5", "no space left, on the server or here"},
    {"6", "server unreachable"},
    {"130", "interrupted"},
};

constexpr char kSettings[] =
    "Server and keys come from the options, also from the data folder that --data names and the server that --server "
    "names, else from the environment, else from ~/.config/tansy/config.toml, else from the data folder ./tansy-data. "
    "The configuration file names servers:";

constexpr char kConfigExample[] =
    "default = \"home\"\n\n"
    "[servers.home]\n"
    "url = \"http://192.168.1.5:9700\"\n"
    "access_key = \"...\"\n"
    "secret_key = \"...\"\n"
    "pool = \"photos\"           # may be left out, as what follows\n"
    "picture_url = \"http://192.168.1.5:9701\"\n"
    "s3_url = \"http://192.168.1.5:9702\"\n"
    "ca = \"/path/of/server.crt\"\n";

std::string Wrapped(const std::string& text, const std::string& indent, std::size_t width = 78) {
  std::string wrapped;
  std::string line = indent;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = std::min(text.find_first_of(" \n", at), text.size());
    const std::string word = text.substr(at, end - at);
    if (line.size() > indent.size() && line.size() + 1 + word.size() > width) {
      wrapped += line + "\n";
      line = indent;
    }
    line += (line.size() > indent.size() ? " " : "") + word;
    if (end < text.size() && text[end] == '\n') {
      wrapped += line + "\n";
      line = indent;
    }
    at = end + 1;
  }
  return wrapped + line + "\n";
}

std::string Table(const Rows& rows) {
  std::size_t width = 0;
  for (const auto& [name, text] : rows) {
    width = std::max(width, name.size());
  }
  width = std::min<std::size_t>(width, 26);
  std::string table;
  for (const auto& [name, text] : rows) {
    const std::string indent(width + 4, ' ');
    std::string lines = Wrapped(text, indent);
    const std::string head = "  " + name;
    if (head.size() + 2 <= indent.size()) {
      lines.replace(0, head.size(), head);
      table += lines;
    } else {
      table += head + "\n" + lines;
    }
  }
  return table;
}

std::string Placeholder(const ArgumentSpec& argument) {
  std::string name = argument.name;
  for (std::size_t i = 0; i < argument.choices.size(); ++i) {
    name = (i == 0 ? "" : name + "|") + argument.choices[i];
  }
  name += argument.many ? "..." : "";
  return (argument.required ? name : "[" + name + "]") + argument.behind;
}

std::string OptionText(const OptionSpec& option) {
  return option.value_name == nullptr ? option.name : std::string(option.name) + " " + option.value_name;
}

Rows OptionRows(const std::vector<OptionSpec>& options) {
  Rows rows;
  for (const OptionSpec& option : options) {
    rows.emplace_back(OptionText(option), option.help);
  }
  return rows;
}

template <std::size_t Count>
Rows TextRows(const TextRow (&texts)[Count]) {
  Rows rows;
  for (const TextRow& row : texts) {
    rows.emplace_back(row.name, row.text);
  }
  return rows;
}

Rows CommandRows(const std::string& group, bool all) {
  Rows rows;
  for (const CommandSpec& command : AllCommands()) {
    if (all || group == command.group) {
      rows.emplace_back(command.FullName(), command.summary);
    }
  }
  return rows;
}

// Prepares text for roff, where a backslash starts a request, and so does a point or quote at the start of a line.
std::string Roff(const std::string& text) {
  std::string roff;
  for (const char c : text) {
    if (c == '\\') {
      roff += "\\e";
    } else if (c == '-') {
      roff += "\\-";
    } else if ((c == '.' || c == '\'') && (roff.empty() || roff.back() == '\n')) {
      roff += std::string("\\&") + c;
    } else {
      roff += c;
    }
  }
  return roff;
}

std::string RoffRows(const Rows& rows) {
  std::string roff;
  for (const auto& [name, text] : rows) {
    roff += ".TP\n.B " + Roff(name) + "\n" + Roff(text) + "\n";
  }
  return roff;
}

std::string RoffExample(const std::string& text) {
  return ".PP\n.nf\n.RS\n" + Roff(text) + (text.ends_with("\n") ? "" : "\n") + ".RE\n.fi\n";
}

std::string RoffCommand(const CommandSpec& command) {
  std::string roff = ".SS " + Roff(UsageLine(command)) + "\n" + Roff(command.description) + "\n";
  Rows rows;
  for (const ArgumentSpec& argument : command.arguments) {
    rows.emplace_back(argument.name, argument.help);
  }
  roff += RoffRows(rows) + RoffRows(OptionRows(command.options));
  for (const ExampleSpec& example : command.examples) {
    roff += ".PP\n" + Roff(example.explanation) + ":\n" + RoffExample(example.command);
  }
  return roff;
}

}  // namespace
}  // namespace details

std::string UsageLine(const CommandSpec& command) {
  const std::string name = "tansy " + command.FullName();
  std::string options;
  for (const OptionSpec& option : command.options) {
    options += " [" + details::OptionText(option) + "]";
  }
  std::string arguments;
  for (const ArgumentSpec& argument : command.arguments) {
    arguments += " " + details::Placeholder(argument);
  }
  const bool fits = name.size() + options.size() + arguments.size() <= details::kLongestUsage;
  return name + (fits ? options : " [options]") + arguments;
}

std::string ProgramHelp() {
  return std::string("tansy ") + details::kSummary + "\n\nUsage: tansy [options] COMMAND ...\n\nCommands:\n" +
         details::Table(details::CommandRows("", true)) + "\nOptions of every command:\n" +
         details::Table(details::OptionRows(GlobalOptions())) +
         "  --help                    this text; after a command, that command's\n"
         "  --version                 the program's version\n"
         "\nEnvironment:\n" +
         details::Table(details::TextRows(details::kEnvironment)) + "\nExit codes:\n" +
         details::Table(details::TextRows(details::kExitCodes)) + "\n" + details::Wrapped(details::kSettings, "") +
         "\n" + details::kConfigExample;
}

std::string GroupHelp(const std::string& group) {
  return "Usage: tansy [options] " + group + " COMMAND ...\n\nCommands:\n" +
         details::Table(details::CommandRows(group, false)) + "\nOptions of every command: see tansy --help\n";
}

std::string CommandHelp(const CommandSpec& command) {
  std::string help = "Usage: " + UsageLine(command) + "\n\n" + details::Wrapped(command.description, "");
  details::Rows rows;
  for (const ArgumentSpec& argument : command.arguments) {
    rows.emplace_back(argument.name, argument.help);
  }
  help += rows.empty() ? "" : "\nArguments:\n" + details::Table(rows);
  help += command.options.empty() ? "" : "\nOptions:\n" + details::Table(details::OptionRows(command.options));
  help += "\nExamples:\n";
  for (const ExampleSpec& example : command.examples) {
    help += "  " + std::string(example.command) + "\n" + details::Wrapped(example.explanation, "      ");
  }
  return help + "\nOptions of every command: see tansy --help\n";
}

std::string ManualPage() {
  std::string page = ".TH TANSY 1 \"\" \"tansy " TANSY_VERSION "\"\n.SH NAME\ntansy \\- " +
                     details::Roff(details::kSummary) +
                     "\n.SH SYNOPSIS\n.B tansy\n[options] COMMAND ...\n.SH OPTIONS\nThese go with every command.\n" +
                     details::RoffRows(details::OptionRows(GlobalOptions())) + ".SH COMMANDS\n";
  for (const CommandSpec& command : AllCommands()) {
    page += details::RoffCommand(command);
  }
  page += ".SH SETTINGS\n" + details::Roff(details::kSettings) + "\n" + details::RoffExample(details::kConfigExample);
  page += ".SH ENVIRONMENT\n" + details::RoffRows(details::TextRows(details::kEnvironment));
  page += ".SH EXIT STATUS\n" + details::RoffRows(details::TextRows(details::kExitCodes));
  return page;
}

}  // namespace Tansy::Cli
