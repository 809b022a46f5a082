// links: TansyHost
// The settings file of tansyd and the values of its options. The first byte of the input says whether the file may name
// the data folder; the rest is the file.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "IpAddress.h"
#include "Options.h"
#include "Require.h"
#include "Settings.h"
#include "StartFailure.h"

namespace {

using namespace Tansy::Host;

// What goes wrong is told in one line.
void CheckFailure(const CStartFailure& failure) {
  const std::string line = failure.what();
  Require(failure.GetExitCode() == kExitFailed || failure.GetExitCode() == kExitUsage);
  Require(!line.empty() && std::none_of(line.begin(), line.end(),
                                        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }));
}

std::optional<Settings> Parse(const std::string& content, bool may_name_data) {
  try {
    return ParseSettings(content, "tansyd.toml", may_name_data);
  } catch (const CStartFailure& failure) {
    Require(failure.GetExitCode() == kExitFailed);
    CheckFailure(failure);
    return std::nullopt;
  }
}

// Whatever was accepted lies within what the help promises.
void CheckOptions(const HostOptions& options) {
  Require(!options.data.empty() && options.data.find('\0') == std::string::npos);
  Require(options.object_port != 0 && options.picture_port != 0);
  Require(options.memory_limit_mib >= 256 && options.memory_limit_mib <= 1048576);
  Require(options.require_date_minutes <= 10080);
  Require(options.keep_removed_days >= 0 && options.keep_removed_days <= 36500);
  Require(options.keep_failed_seconds >= 1 && options.keep_failed_seconds <= 86400);
  Require(options.log_level >= 2 && options.log_level <= 5);
  Require(options.database.type == db_layer::kSqlite || options.database.type == db_layer::kPostgresql);
  Require(!options.database.database.empty() && options.database.port >= 0 && options.database.port <= 65535);
  Require(options.storage.starts_with("file:") || options.storage.starts_with("rados:"));
  for (const std::string& address : options.listen) {
    const auto parsed = ParseIpAddress(address);
    Require(parsed.has_value() && parsed->text == address);
  }
  for (const std::string& address : {options.local_ip, options.wan_ip}) {
    Require(address.empty() || (ParseIpAddress(address).has_value() && !ParseIpAddress(address)->is_any));
  }
}

void Apply(const OptionTexts& texts) {
  HostOptions options;
  try {
    ApplyOptions(options, texts, "settings file tansyd.toml: ", "", kExitFailed);
    CheckOptions(options);
    CheckPorts(options);
  } catch (const CStartFailure& failure) {
    CheckFailure(failure);
  }
}

// New keys are found again, and everything else is as it was.
void CheckNewCredentials(const std::string& content, const Settings& settings) {
  if (!settings.access_key.empty()) {
    return;
  }
  const auto again = Parse(AddCredentials(content, "access", "secret"), true);
  if (again.has_value() && again->access_key == "access" && again->secret_key == "secret") {
    Require(again->texts == settings.texts);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string content(data + 1, data + size);
  if (const auto settings = Parse(content, data[0] % 2 != 0)) {
    Require(data[0] % 2 != 0 || settings->texts.count("data") == 0);
    Require(settings->texts.count("config") == 0);
    Require(settings->access_key.empty() == settings->secret_key.empty());
    Apply(settings->texts);
    CheckNewCredentials(content, *settings);
  }
  return 0;
}
