// links: TansyCli HostSystem tomlplusplus::tomlplusplus
// How tansy finds its server. The input is a configuration, the settings and the addresses of a tansyd of this machine,
// the words of the command line, and an address that a user gives, with NUL bytes between them. This program plays the
// file system.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Failure.h"
#include "HostSystem/Files.h"
#include "Require.h"
#include "Settings.h"
#include "TansyNet/HttpClient.h"

namespace {

using namespace Tansy::Cli;

constexpr std::size_t kMostWords = 32;

struct Place {
  std::string configuration;
  std::string settings;
  std::string listening;
  std::string words;
  std::string url;
};
Place g_place;

}  // namespace

// The files that tansy reads: these are called instead of the library's own.
namespace HostSystem {

int ReadWholeFile(const std::string& path, std::size_t /*limit*/, std::string& content) {
  content = path.ends_with("config.toml")      ? g_place.configuration
            : path.ends_with("tansyd.toml")    ? g_place.settings
            : path.ends_with("listening.toml") ? g_place.listening
                                               : std::string();
  return content.empty() ? ENOENT : 0;
}

EPathKind GetPathKind(const std::string& path) {
  return path == "tansy-data" ? EPathKind::kFolder : EPathKind::kMissing;
}

}  // namespace HostSystem

namespace {

std::vector<std::string> Split(const std::string& text, char separator, std::size_t most) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  while (parts.size() + 1 < most && text.find(separator, begin) != std::string::npos) {
    const std::size_t end = text.find(separator, begin);
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  parts.push_back(text.substr(begin));
  return parts;
}

// An address that tansy uses is one that it would take from a user too.
void CheckAddress(const ServerAddress& address) {
  ServerAddress again;
  Require(ParseServerUrl(address.Url(), again));
  Require(again == address);
}

void CheckFailure(const CFailure& failure) {
  Require(failure.GetExitCode() == kExitUsage || failure.GetExitCode() == kExitFailed);
  Require(!failure.IsSilent());
}

void CheckSettings(const Globals& globals) {
  try {
    const Settings settings = FindSettings(globals, [](const char*) { return std::string(); });
    CheckAddress(settings.object_server);
    // No port follows the last one: then there is no picture server.
    const bool has_pictures = settings.picture_server.port != 0;
    Require(has_pictures || settings.object_server.port == 65535);
    if (has_pictures) {
      CheckAddress(settings.picture_server);
    }
    Require(!settings.access_key.empty() && !settings.secret_key.empty());
  } catch (const CFailure& failure) {
    CheckFailure(failure);
  }
}

Globals CheckCommandLine(const std::string& text) {
  std::vector<std::string> words = Split(text, '\n', kMostWords);
  words.insert(words.begin(), "tansy");
  std::vector<const char*> pointers;
  std::transform(words.begin(), words.end(), std::back_inserter(pointers),
                 [](const auto& word) { return word.c_str(); });
  try {
    const ParsedCommandLine line = ParseCommandLine(static_cast<int>(pointers.size()), pointers.data());
    Require((line.command == nullptr) == !line.print_only.empty());
    return line.globals;
  } catch (const CFailure& failure) {
    Require(failure.GetExitCode() == kExitUsage);
    return {};
  }
}

// A whole address is followed on the server that is set only.
void CheckTarget(const std::string& url) {
  const ServerAddress server{false, "127.0.0.1", 9700};
  try {
    const std::string target = TargetOnServer(url, server, "");
    TansyNet::URL parsed;
    Require(target == url || (TansyNet::URL::Parse(url, parsed) && parsed.host == server.host &&
                              parsed.port == server.port && parsed.target == target));
  } catch (const CFailure& failure) {
    CheckFailure(failure);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> parts = Split(std::string(data, data + size), '\0', 5);
  parts.resize(5);
  g_place = {parts[0], parts[1], parts[2], parts[3], parts[4]};
  CheckSettings({});
  CheckSettings(CheckCommandLine(g_place.words));
  CheckTarget(g_place.url);
  return 0;
}
