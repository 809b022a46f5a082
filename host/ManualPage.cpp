#include "ManualPage.h"

#include <utility>

#include "Options.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

using Rows = std::vector<std::pair<std::string, std::string>>;

// Prepares text for roff, where a backslash starts a request, and so does a point or quote at the start of a line.
std::string Roff(const std::string& text) {
  std::string roff;
  for (const char c : text) {
    const bool is_at_start = roff.empty() || roff.back() == '\n';
    if (c == '\\') {
      roff += "\\e";
    } else if (c == '-') {
      roff += "\\-";
    } else {
      roff += (c == '.' || c == '\'') && is_at_start ? "\\&" : "";
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

std::string Section(const std::string& title, const std::string& roff) {
  return ".SH " + title + "\n" + roff;
}

std::string Title(const std::string& name, const std::string& section) {
  return ".TH " + name + " " + section + " \"\" \"tansyd " TANSY_VERSION "\"\n";
}

Rows RowsOf(const CommandDescription& command) {
  Rows rows;
  for (const OptionDescription& option : command.options) {
    rows.emplace_back(option.name + (option.value.empty() ? "" : " " + option.value), option.help);
  }
  return rows;
}

std::string RoffCommands(const std::vector<CommandDescription>& commands) {
  std::string roff;
  for (const CommandDescription& command : commands) {
    if (!command.name.empty()) {
      roff += ".SS tansyd " + Roff(command.name) + "\n" + Roff(command.help) + "\n" + RoffRows(RowsOf(command));
    }
  }
  return roff;
}

std::string ProgramPage(const std::vector<CommandDescription>& commands) {
  const Rows signals = {
      {"SIGTERM, SIGINT",
       "The server stops: requests under way may end, for some seconds. A second one ends it at once."},
      {"SIGHUP",
       "Log files are opened anew, the certificate and the settings are read again. The log says which setting "
       "counts from the next start only."},
  };
  const Rows environment = {
      {"TANSY_ACCESS_KEY, TANSY_SECRET_KEY",
       "the keys that requests are signed with, in the place of those of the settings"},
      {"NOTIFY_SOCKET, WATCHDOG_USEC", "where and how often a service manager wants to hear that the server is well"},
      {"LISTEN_PID, LISTEN_FDS",
       "listening sockets that a service manager has opened; each is used for the listener of its "
       "address and port"},
  };
  const Rows exits = {
      {std::to_string(kExitDone), "done"},
      {std::to_string(kExitFailed), "a port, folder, database, settings file or certificate cannot be used"},
      {std::to_string(kExitUsage), "an option or a value is wrong"},
      {std::to_string(kExitFindings), "--check found something that it has not mended"},
  };
  const Rows files = {
      {"/etc/tansyd/tansyd.toml", "settings and keys of the service of the package"},
      {"/var/lib/tansyd", "its data folder"},
  };
  return Title("TANSYD", "8") + Section("NAME", "tansyd \\- cloud\\-storage server\n") +
         Section("SYNOPSIS", ".B tansyd\n[options] [COMMAND ...]\n") +
         Section(
             "DESCRIPTION",
             Roff("tansyd keeps objects and pictures in a data folder and serves them by three protocols, each of them "
                  "by HTTP and HTTPS. It runs in the foreground and writes its log to standard error.") +
                 "\n") +
         Section("OPTIONS", RoffRows(RowsOf(commands.front()))) + Section("COMMANDS", RoffCommands(commands)) +
         Section("SIGNALS", RoffRows(signals)) + Section("ENVIRONMENT", RoffRows(environment)) +
         Section("EXIT STATUS", RoffRows(exits)) + Section("FILES", RoffRows(files)) +
         Section("SEE ALSO", ".BR tansyd.toml (5),\n.BR tansy (1)\n");
}

std::string KindOf(const OptionRow& row) {
  const std::string many = row.is_list ? " Several stand in an array." : "";
  return many + (row.is_live ? " SIGHUP makes a running server read it again." : "");
}

std::string SettingsPage() {
  Rows rows;
  for (const OptionRow& row : OptionTable()) {
    if (std::string(row.name) != "config") {
      rows.emplace_back(std::string(row.name) + " = " + row.value_name, row.help + ("." + KindOf(row)));
    }
  }
  const Rows keys = {{"access_key = TEXT", "names whoever signs a request"},
                     {"secret_key = TEXT", "signs it; whoever knows it may do everything"}};
  return Title("TANSYD.TOML", "5") + Section("NAME", "tansyd.toml \\- settings of the server tansyd\n") +
         Section(
             "DESCRIPTION",
             Roff("A file in TOML whose keys are the long options of tansyd without their dashes. Values are texts or "
                  "whole numbers. What the command line says goes before it. Without --config the file tansyd.toml in "
                  "the data folder is read; only a file elsewhere may name the data folder. A key that does not exist "
                  "is an error.") +
                 "\n") +
         Section("KEYS", RoffRows(rows)) +
         Section("CREDENTIALS",
                 Roff("The table [credentials] holds the pair of keys. When the file has none, tansyd makes "
                      "a random pair and writes it there.") +
                     "\n" + RoffRows(keys)) +
         Section("EXAMPLE",
                 ".nf\nobject\\-port = 9700\nlisten = [\"127.0.0.1\", \"::1\"]\nmemory\\-limit = 2048\n.fi\n") +
         Section("SEE ALSO", ".BR tansyd (8)\n");
}

std::string Words(const std::vector<CommandDescription>& commands) {
  std::string words;
  for (const CommandDescription& command : commands) {
    words += command.name.empty() ? "" : " " + command.name;
    for (const OptionDescription& option : command.options) {
      words += " " + option.name;
    }
  }
  return words;
}

std::string OptionsWithFiles(const std::vector<CommandDescription>& commands) {
  std::string names;
  for (const OptionDescription& option : commands.front().options) {
    if (option.value == "FILE" || option.value == "DIR") {
      names += (names.empty() ? "" : "|") + option.name;
    }
  }
  return names;
}

std::string BashScript(const std::vector<CommandDescription>& commands) {
  return "# Completes the words of tansyd in bash.\n"
         "_tansyd() {\n"
         "  case \"${COMP_WORDS[COMP_CWORD-1]}\" in\n"
         "    " +
         OptionsWithFiles(commands) +
         ")\n"
         "      compopt -o filenames\n"
         "      mapfile -t COMPREPLY < <(compgen -f -- \"${COMP_WORDS[COMP_CWORD]}\")\n"
         "      return\n"
         "      ;;\n"
         "  esac\n"
         "  mapfile -t COMPREPLY < <(compgen -W \"" +
         Words(commands) +
         "\" -- \"${COMP_WORDS[COMP_CWORD]}\")\n"
         "}\n"
         "complete -F _tansyd tansyd\n";
}

}  // namespace
}  // namespace details

std::string ManualPage(const std::string& name, const std::vector<CommandDescription>& commands) {
  if (name == "tansyd.8") {
    return details::ProgramPage(commands);
  }
  if (name == "tansyd.toml.5") {
    return details::SettingsPage();
  }
  return name == "bash" ? details::BashScript(commands) : "";
}

}  // namespace Tansy::Host
