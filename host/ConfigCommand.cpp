#include "ConfigCommand.h"

#include <algorithm>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Certificate.h"
#include "Configuration.h"
#include "Credentials.h"
#include "HostSystem/Files.h"
#include "HostSystem/Process.h"
#include "MovedMark.h"
#include "PrintableText.h"
#include "SettingsInForce.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kSettingsFile = "/tansyd.toml";
constexpr std::size_t kOriginColumn = 52;

struct InForce {
  HostOptions options;
  Settings settings;
  std::string settings_path;
  bool has_settings = false;
  std::string moves;  // what options mean since a move
  std::optional<CredentialPair> keys;
};

// As a start does it, but for what a start makes. Relative paths count from the data folder, when there is one.
InForce Load(const OptionTexts& given) {
  FoundSettings found = FindSettings(given);
  InForce in_force;
  const std::string data = HostSystem::AbsolutePath(found.data);
  in_force.settings = std::move(found.settings);
  in_force.settings_path = found.config_path.empty() ? data + kSettingsFile : found.config_path;
  in_force.has_settings = !found.config_path.empty() || ReadSettings(in_force.settings_path, false, in_force.settings);
  ApplyOptions(in_force.options, in_force.settings.texts, "settings file " + in_force.settings_path + ": ", "",
               kExitFailed);
  ApplyOptions(in_force.options, given, "", "--", kExitUsage);
  in_force.options.data = data;
  in_force.options.config = in_force.settings_path;
  CheckPorts(in_force.options);
  in_force.keys = FindCredentials(in_force.settings, in_force.settings_path);
  if (HostSystem::GetPathKind(data) == HostSystem::EPathKind::kFolder && HostSystem::ChangeFolder(data) == 0) {
    in_force.moves = FollowMoves(ReadMovedMark(), in_force.options);
  }
  return in_force;
}

void ExpectUsable(const InForce& in_force) {
  if (in_force.options.NeedsCertificate() &&
      HostSystem::GetPathKind(std::string(kCertificatePath) + ".crt") != HostSystem::EPathKind::kMissing) {
    const std::string error = CheckCertificate(kCertificatePath);
    if (!error.empty()) {
      throw CStartFailure(kExitFailed, error);
    }
  }
}

void PrintRow(std::ostream& out, const std::string& name, const std::string& value, const std::string& origin) {
  std::string row = name + " = " + Printable(value);
  row.resize(std::max(row.size() + 2, kOriginColumn), ' ');
  out << row << "# " << Printable(origin) << '\n';
}

std::string OriginOf(const std::string& name, const OptionTexts& given, const InForce& in_force) {
  if (given.contains(name)) {
    return "command line";
  }
  return in_force.settings.texts.contains(name) ? in_force.settings_path : "default";
}

void PrintKeys(std::ostream& out, const InForce& in_force) {
  if (!in_force.keys.has_value()) {
    PrintRow(out, "credentials", "", "made at the first start");
    return;
  }
  const bool is_of_environment = HostSystem::HasEnvironment("TANSY_ACCESS_KEY");
  PrintRow(out, "credentials.access_key", in_force.keys->access_key,
           is_of_environment ? "environment, TANSY_ACCESS_KEY" : in_force.settings_path);
  PrintRow(out, "credentials.secret_key", "...",
           is_of_environment ? "environment, TANSY_SECRET_KEY" : in_force.settings_path);
}

}  // namespace
}  // namespace details

int RunConfigCommand(const CommandLine& line, std::ostream& out) {
  const details::InForce in_force = details::Load(line.texts);
  if (line.config_work == "print") {
    for (const auto& [name, value] : SettingsInForce(in_force.options)) {
      details::PrintRow(out, name, value, details::OriginOf(name, line.texts, in_force));
    }
    details::PrintKeys(out, in_force);
    if (!in_force.moves.empty()) {
      out << "# since a move " << Printable(in_force.moves) << '\n';
    }
    return kExitDone;
  }
  details::ExpectUsable(in_force);
  out << "config: all options are valid; " << (in_force.has_settings ? "settings file " : "there is no settings file ")
      << Printable(in_force.settings_path) << '\n';
  return kExitDone;
}

}  // namespace Tansy::Host
