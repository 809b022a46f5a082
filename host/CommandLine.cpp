#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <utility>
#include <vector>

#include "HostSystem/Files.h"
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

void ExpectOneWork(const CommandLine& line) {
  const bool moves = !line.move_database.empty() || !line.move_storage.empty();
  const int works = (moves ? 1 : 0) + (line.move_cancel ? 1 : 0) + (line.move_delete ? 1 : 0);
  if (static_cast<int>(line.move) + static_cast<int>(line.backup) + static_cast<int>(line.restore) +
          static_cast<int>(line.check) + static_cast<int>(line.check_upgrade) >
      1) {
    throw CStartFailure(kExitUsage, "give one of --check, --check-upgrade, move, backup and restore");
  }
  if (line.move && works != 1) {
    throw CStartFailure(kExitUsage, "move needs --to-database or --to-storage, or --cancel or --delete-old alone");
  }
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
  return check || check_upgrade ? "check" : "";
}

CommandLine ParseCommandLine(int argc, const char* const* argv) {
  CommandLine line;
  CLI::App app("tansyd, the stand-alone cloud-storage server", "tansyd");
  app.allow_windows_style_options(false);
  app.set_version_flag("--version", "tansyd " TANSY_VERSION);

  std::vector<std::pair<CLI::Option*, const char*>> options;
  std::vector<std::string> values(OptionTable().size());
  for (std::size_t i = 0; i < OptionTable().size(); ++i) {
    const OptionRow& row = OptionTable()[i];
    CLI::Option* option = app.add_option(std::string("--") + row.name, values[i], row.help);
    option->type_name(row.value_name);
    if (row.is_list) {
      option->join(',');
    }
    options.emplace_back(option, row.name);
  }
  CLI::Option* check =
      app.add_flag("--check", line.check, "compare catalogue and stored bytes, list what differs, end");
  CLI::Option* repair =
      app.add_flag("--repair", line.repair, "with --check: free the stored bytes that nothing refers to")->needs(check);
  app.add_flag("--force", line.force, "with --repair: also if that is more than a tenth of all bytes")->needs(repair);
  app.add_flag("--check-upgrade", line.check_upgrade, "say what a start would change in catalogue and storage, end");
  const CLI::App* move = details::AddMove(app, line);
  const CLI::App* backup = details::AddBackup(app, line);
  const CLI::App* restore = details::AddRestore(app, line);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    const CLI::App* asked = &app;
    for (const CLI::App* each : {move, backup, restore}) {
      asked = each->parsed() ? each : asked;
    }
    line.print_only = asked->help();
    return line;
  } catch (const CLI::CallForVersion& version) {
    line.print_only = std::string(version.what()) + "\n";
    return line;
  } catch (const CLI::ParseError& error) {
    throw CStartFailure(kExitUsage, details::OneLine(error.what()) + " (tansyd --help lists the options)");
  }
  line.move = move->parsed();
  line.backup = backup->parsed();
  line.restore = restore->parsed();
  line.backup_path = line.backup_path.empty() ? "" : HostSystem::AbsolutePath(line.backup_path);
  details::ExpectOneWork(line);
  for (std::size_t i = 0; i < options.size(); ++i) {
    if (options[i].first->count() > 0) {
      line.texts[options[i].second] = values[i];
    }
  }
  return line;
}

}  // namespace Tansy::Host
