#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <utility>
#include <vector>

#include "HostSystem/Files.h"
#include "ManualPage.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

std::string OneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  while (!text.empty() && text.back() == ' ') {
    text.pop_back();
  }
  return text;
}

CLI::App* AddMove(CLI::App& app, CommandLine& line) {
  CLI::App* move =
      app.add_subcommand("move", "move catalogue and bytes to another place, also beside a running tansyd");
  move->fallthrough();
  move->add_option("--to-database", line.move_database, "where the catalogue goes: as --database")->type_name("URL");
  move->add_option("--to-storage", line.move_storage, "where the bytes go: as --storage")->type_name("URL");
  move->add_flag("--dry-run", line.move_dry_run, "only say how much there is, and how long it takes");
  move->add_flag("--even-damaged", line.move_force, "move although the bytes of some objects cannot be read");
  move->add_flag("--cancel", line.move_cancel, "forget a move that has begun; what was copied stays there");
  move->add_flag("--delete-old", line.move_delete, "free the place of before the move");
  return move;
}

CLI::App* AddBackup(CLI::App& app, CommandLine& line) {
  CLI::App* backup = app.add_subcommand("backup", "make a backup of the data folder, also beside a running tansyd");
  backup->fallthrough();
  backup->add_option("DIR", line.backup_path, "folder that keeps the backups of this data folder")->required();
  CLI::Option* verify = backup->add_flag("--verify", line.backup_verify,
                                         "make none: read all of the newest one, or of that one, and compare it");
  backup->add_flag("--full", line.backup_full, "copy everything, take nothing over from the backup before")
      ->excludes(verify);
  backup->add_flag("--even-damaged", line.backup_even_damaged, "also when the bytes of some objects cannot be read")
      ->excludes(verify);
  return backup;
}

CLI::App* AddRestore(CLI::App& app, CommandLine& line) {
  CLI::App* restore = app.add_subcommand("restore", "make a data folder from a backup");
  restore->fallthrough();
  restore->add_option("BACKUP", line.backup_path, "a backup, or the folder that keeps them: the newest")->required();
  return restore;
}

CLI::App* AddConfig(CLI::App& app, CommandLine& line) {
  CLI::App* config = app.add_subcommand("config", "show or check the options in force, start nothing");
  config->fallthrough();
  config
      ->add_option("WORK", line.config_work,
                   "print: each option and where it comes from; check: only say if they are valid")
      ->required()
      ->check(CLI::IsMember({"print", "check"}));
  return config;
}

void ExpectOneWork(const CommandLine& line) {
  const bool moves = !line.move_database.empty() || !line.move_storage.empty();
  const int works = (moves ? 1 : 0) + (line.move_cancel ? 1 : 0) + (line.move_delete ? 1 : 0);
  if (static_cast<int>(line.move) + static_cast<int>(line.backup) + static_cast<int>(line.restore) +
          static_cast<int>(!line.config_work.empty()) + static_cast<int>(line.check) +
          static_cast<int>(line.check_upgrade) >
      1) {
    throw CStartFailure(kExitUsage, "give one of --check, --check-upgrade, move, backup, restore and config");
  }
  if (line.move && works != 1) {
    throw CStartFailure(kExitUsage, "move needs --to-database or --to-storage, or --cancel or --delete-old alone");
  }
}

// All that the command line may hold, and where it goes.
struct Parser {
  CLI::App app{"tansyd, the stand-alone cloud-storage server", "tansyd"};
  CommandLine line;
  std::vector<std::string> values{std::vector<std::string>(OptionTable().size())};  // by row of the table
  std::vector<CLI::Option*> options;                                                // likewise
  const CLI::App* move = nullptr;
  const CLI::App* backup = nullptr;
  const CLI::App* restore = nullptr;
  const CLI::App* config = nullptr;
  std::string manual;  // the page that the build asks for

  Parser();
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

 private:
  void AddTable();
  void AddCheck();
};

Parser::Parser() {
  app.allow_windows_style_options(false);
  app.set_version_flag("--version", "tansyd " TANSY_VERSION);
  AddTable();
  AddCheck();
  move = AddMove(app, line);
  backup = AddBackup(app, line);
  restore = AddRestore(app, line);
  config = AddConfig(app, line);
  app.add_option("--manual", manual)->type_name("PAGE")->group("");
}

void Parser::AddTable() {
  for (std::size_t i = 0; i < OptionTable().size(); ++i) {
    const OptionRow& row = OptionTable()[i];
    CLI::Option* option = app.add_option(std::string("--") + row.name, values[i], row.help);
    option->type_name(row.value_name);
    if (row.is_list) {
      option->join(',');
    }
    options.push_back(option);
  }
}

void Parser::AddCheck() {
  CLI::Option* check =
      app.add_flag("--check", line.check, "compare catalogue and stored bytes, list what differs, end");
  CLI::Option* repair =
      app.add_flag("--repair", line.repair, "with --check: free the stored bytes that nothing refers to")->needs(check);
  app.add_flag("--force", line.force, "with --repair: also if that is more than a tenth of all bytes")->needs(repair);
  app.add_flag("--check-upgrade", line.check_upgrade, "say what a start would change in catalogue and storage, end");
}

std::string HelpOf(const Parser& parser) {
  const CLI::App* asked = &parser.app;
  for (const CLI::App* each : parser.app.get_subcommands()) {
    asked = each;
  }
  return asked->help();
}

// An option without a group is for the build alone.
std::vector<OptionDescription> Describe(const CLI::App& app) {
  std::vector<OptionDescription> options;
  for (const CLI::Option* option : app.get_options()) {
    if (!option->get_group().empty()) {
      const bool has_value = option->nonpositional() && option->get_expected_max() > 0;
      options.push_back({option->get_name(), has_value ? option->get_type_name() : "", option->get_description()});
    }
  }
  return options;
}

// The program comes first, then its commands.
std::vector<CommandDescription> DescribeAll() {
  const Parser parser;
  std::vector<CommandDescription> all = {{"", parser.app.get_description(), Describe(parser.app)}};
  for (const CLI::App* command : parser.app.get_subcommands([](const CLI::App*) { return true; })) {
    all.push_back({command->get_name(), command->get_description(), Describe(*command)});
  }
  return all;
}

std::string PageOf(const std::string& name) {
  std::string page = ManualPage(name, DescribeAll());
  if (page.empty()) {
    throw CStartFailure(kExitUsage, "--manual needs tansyd.8, tansyd.toml.5 or bash");
  }
  return page;
}

}  // namespace
}  // namespace details

std::string CommandLine::Work() const {
  if (move) {
    return "move";
  }
  if (backup) {
    return "backup";
  }
  if (restore) {
    return "restore";
  }
  if (!config_work.empty()) {
    return "config";
  }
  return check || check_upgrade ? "check" : "";
}

CommandLine ParseCommandLine(int argc, const char* const* argv) {
  details::Parser parser;
  CommandLine& line = parser.line;
  try {
    parser.app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    line.print_only = details::HelpOf(parser);
    return line;
  } catch (const CLI::CallForVersion& version) {
    line.print_only = std::string(version.what()) + "\n";
    return line;
  } catch (const CLI::ParseError& error) {
    throw CStartFailure(kExitUsage, details::OneLine(error.what()) + " (tansyd --help lists the options)");
  }
  if (!parser.manual.empty()) {
    line.print_only = details::PageOf(parser.manual);
    return line;
  }
  line.move = parser.move->parsed();
  line.backup = parser.backup->parsed();
  line.restore = parser.restore->parsed();
  line.backup_path = line.backup_path.empty() ? "" : HostSystem::AbsolutePath(line.backup_path);
  details::ExpectOneWork(line);
  for (std::size_t i = 0; i < parser.options.size(); ++i) {
    if (parser.options[i]->count() > 0) {
      line.texts[OptionTable()[i].name] = parser.values[i];
    }
  }
  return line;
}

}  // namespace Tansy::Host
