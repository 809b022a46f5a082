#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <utility>
#include <vector>

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

void ExpectOneWork(const CommandLine& line) {
  const bool moves = !line.move_database.empty() || !line.move_storage.empty();
  const int works = (moves ? 1 : 0) + (line.move_cancel ? 1 : 0) + (line.move_delete ? 1 : 0);
  if (line.move && (works != 1 || line.check)) {
    throw CStartFailure(kExitUsage, "move needs --to-database or --to-storage, or --cancel or --delete-old alone");
  }
}

}  // namespace
}  // namespace details

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
  const CLI::App* move = details::AddMove(app, line);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    line.print_only = (move->parsed() ? move : &app)->help();
    return line;
  } catch (const CLI::CallForVersion& version) {
    line.print_only = std::string(version.what()) + "\n";
    return line;
  } catch (const CLI::ParseError& error) {
    throw CStartFailure(kExitUsage, details::OneLine(error.what()) + " (tansyd --help lists the options)");
  }
  line.move = move->parsed();
  details::ExpectOneWork(line);
  for (std::size_t i = 0; i < options.size(); ++i) {
    if (options[i].first->count() > 0) {
      line.texts[options[i].second] = values[i];
    }
  }
  return line;
}

}  // namespace Tansy::Host
