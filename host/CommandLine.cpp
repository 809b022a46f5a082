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

}  // namespace
}  // namespace details

CommandLine ParseCommandLine(int argc, const char* const* argv) {
  CommandLine line;
  CLI::App app("tansyd, the stand-alone cloud-storage server", "tansyd");
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

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    line.print_only = app.help();
    return line;
  } catch (const CLI::CallForVersion& version) {
    line.print_only = std::string(version.what()) + "\n";
    return line;
  } catch (const CLI::ParseError& error) {
    throw CStartFailure(kExitUsage, details::OneLine(error.what()) + " (tansyd --help lists the options)");
  }
  for (std::size_t i = 0; i < options.size(); ++i) {
    if (options[i].first->count() > 0) {
      line.texts[options[i].second] = values[i];
    }
  }
  return line;
}

}  // namespace Tansy::Host
