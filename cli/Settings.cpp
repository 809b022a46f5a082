#include "Settings.h"

#include <toml++/toml.h>

#include <cerrno>
#include <optional>
#include <string_view>
#include <utility>

#include "Failure.h"
#include "HostSystem/Files.h"
#include "HostSystem/Process.h"
#include "TansyNet/HttpClient.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::size_t kLargestFile = std::size_t{1} << 20;
constexpr std::uint16_t kObjectPort = 9700;
constexpr std::uint16_t kPicturePort = 9701;
constexpr std::uint16_t kS3Port = 9702;
constexpr std::uint16_t kAdminPort = 9703;
constexpr char kNoDoor[] = "-";
constexpr char kDefaultDataFolder[] = "tansy-data";
constexpr char kSettingsFile[] = "tansyd.toml";
constexpr char kListeningFile[] = "listening.toml";

[[noreturn]] void Fail(const std::string& path, const std::string& what, const std::string& advice) {
  throw CFailure(kExitFailed, path + ": " + what, advice);
}

// Gives nothing when there is no such file.
std::optional<toml::table> ReadToml(const std::string& path) {
  std::string content;
  const int error = HostSystem::ReadWholeFile(path, kLargestFile, content);
  if (error == ENOENT || error == ENOTDIR) {
    return std::nullopt;
  }
  if (error != 0) {
    Fail(path, "cannot be read: " + HostSystem::ErrorText(error), "check its permissions");
  }
  try {
    return toml::parse(content);
  } catch (const toml::parse_error& parse_error) {
    // The parser's own message is left out, because it may quote the line, and the line may hold a secret.
    Fail(path, "line " + std::to_string(parse_error.source().begin.line) + " is not valid TOML", "mend that line");
  }
}

std::string TextOf(const toml::table& table, std::string_view key) {
  return table[key].value_or(std::string());
}

std::uint16_t PortOf(const toml::table& table, std::string_view key, std::uint16_t missing) {
  const std::int64_t port = table[key].value_or(std::int64_t{missing});
  return port >= 0 && port <= 65535 ? static_cast<std::uint16_t>(port) : missing;
}

// What one place says about a server. The next place fills empty fields.
struct Source {
  std::string name;  // for people
  std::string server_url;
  std::string picture_url;
  std::string s3_url;     // "-": there is no S3 door
  std::string admin_url;  // "-": there is no admin port
  std::string s3_region;
  std::string access_key;
  std::string secret_key;
  std::string pool;
  std::string ca;
  bool insecure = false;
  std::string data_folder;
  std::string keys_file;
};

// Gives "http://HOST:PORT"; without a host, that is this machine.
std::string UrlOf(const std::string& host, std::uint16_t port) {
  return ServerAddress{false, host.empty() ? "127.0.0.1" : host, port}.Url();
}

// Reads what a tansyd keeps in its data folder: the address and ports at which it can be reached while it runs, else
// those of its settings; and its keys.
Source ReadDataFolder(const std::string& folder) {
  const std::string path = folder + "/" + kSettingsFile;
  const std::optional<toml::table> settings = ReadToml(path);
  const std::optional<toml::table> listening = ReadToml(folder + "/" + kListeningFile);
  if (!settings && !listening) {
    Fail(folder, "there is no " + std::string(kSettingsFile) + " in it",
         "start tansyd with this data folder once, or name another one with --data");
  }
  Source source;
  source.name = "data folder " + folder;
  source.data_folder = folder;
  const toml::table& ports = listening ? *listening : *settings;
  const std::string host = listening ? TextOf(*listening, "address") : "";
  source.server_url = UrlOf(host, PortOf(ports, "object-port", kObjectPort));
  source.picture_url = UrlOf(host, PortOf(ports, "picture-port", kPicturePort));
  const std::uint16_t s3_port = PortOf(ports, "s3-port", kS3Port);
  source.s3_url = s3_port == 0 ? kNoDoor : UrlOf(host, s3_port);
  source.s3_region = settings ? TextOf(*settings, "s3-region") : "";
  // Wherever the others listen, this one is at the loopback address.
  const std::uint16_t admin_port = PortOf(ports, "admin-port", kAdminPort);
  source.admin_url = admin_port == 0 ? kNoDoor : UrlOf("", admin_port);
  if (const toml::table* credentials = settings ? (*settings)["credentials"].as_table() : nullptr) {
    source.access_key = TextOf(*credentials, "access_key");
    source.secret_key = TextOf(*credentials, "secret_key");
    source.keys_file = path;
  }
  return source;
}

std::string ConfigPath(const EnvironmentReader& environment) {
  const std::string config_home = environment("XDG_CONFIG_HOME");
  if (!config_home.empty()) {
    return config_home + "/tansy/config.toml";
  }
  const std::string home = environment("HOME");
  return (home.empty() ? environment("USERPROFILE") : home) + "/.config/tansy/config.toml";
}

Source SourceOf(const toml::table& server, const std::string& name, const std::string& path) {
  Source source;
  source.name = "server " + name + " of " + path;
  source.server_url = TextOf(server, "url");
  source.picture_url = TextOf(server, "picture_url");
  source.s3_url = TextOf(server, "s3_url");
  source.s3_region = TextOf(server, "s3_region");
  source.admin_url = TextOf(server, "admin_url");
  source.access_key = TextOf(server, "access_key");
  source.secret_key = TextOf(server, "secret_key");
  source.keys_file = path;
  source.pool = TextOf(server, "pool");
  source.ca = TextOf(server, "ca");
  source.insecure = server["insecure"].value_or(false);
  if (source.server_url.empty()) {
    Fail(path, "server " + name + " has no url", "add url = \"http://HOST:PORT\" to [servers." + name + "]");
  }
  return source;
}

// Gives a named server of the configuration file: the one called `name`, the one with that address, or, without a name,
// the default server. Gives nothing when there is none.
std::optional<Source> ReadConfig(const std::string& path, const std::string& name) {
  const std::optional<toml::table> config = ReadToml(path);
  if (!config) {
    return std::nullopt;
  }
  const toml::table* servers = (*config)["servers"].as_table();
  const std::string wanted = name.empty() ? TextOf(*config, "default") : name;
  if (servers == nullptr || wanted.empty()) {
    return std::nullopt;
  }
  if (const toml::table* server = (*servers)[wanted].as_table()) {
    return SourceOf(*server, wanted, path);
  }
  for (const auto& [key, value] : *servers) {
    const toml::table* server = value.as_table();
    if (server != nullptr && TextOf(*server, "url") == wanted) {
      return SourceOf(*server, std::string(key.str()), path);
    }
  }
  if (name.empty()) {
    Fail(path, "default names the server " + wanted + ", which is not there", "add [servers." + wanted + "]");
  }
  return std::nullopt;
}

// Takes from `source` what is still missing.
void Complete(Source& settings, const Source& source) {
  const auto take = [](std::string& to, const std::string& from) {
    if (to.empty()) {
      to = from;
    }
  };
  // All addresses come from one place, because addresses of different places would belong to different servers.
  if (settings.server_url.empty()) {
    settings.name = source.name;
    settings.data_folder = source.data_folder;
    settings.picture_url = source.picture_url;
    settings.s3_url = source.s3_url;
    settings.s3_region = source.s3_region;
    settings.admin_url = source.admin_url;
  }
  take(settings.server_url, source.server_url);
  if (settings.access_key.empty() && settings.secret_key.empty()) {
    settings.access_key = source.access_key;
    settings.secret_key = source.secret_key;
    settings.keys_file = source.keys_file;
  }
  take(settings.pool, source.pool);
  take(settings.ca, source.ca);
  settings.insecure = settings.insecure || source.insecure;
}

bool IsUrl(const std::string& text) {
  return text.find("://") != std::string::npos;
}

// Gives what one level of the command line or the environment says itself. A server that is given by its name, not by
// its address, goes to `name`.
Source Said(const std::string& server, const std::string& pool, const std::string& ca, const std::string& who,
            std::string& name) {
  Source source;
  (IsUrl(server) ? source.server_url : name) = server;
  source.name = who;
  source.pool = pool;
  source.ca = ca;
  return source;
}

Source SaidByEnvironment(const EnvironmentReader& environment, std::string& name) {
  Source source =
      Said(environment("TANSY_SERVER"), environment("TANSY_POOL"), environment("TANSY_CA"), "TANSY_SERVER", name);
  source.s3_url = environment("TANSY_S3_URL");
  source.admin_url = environment("TANSY_ADMIN_URL");
  source.access_key = environment("TANSY_ACCESS_KEY");
  source.secret_key = environment("TANSY_SECRET_KEY");
  if (source.access_key.empty() != source.secret_key.empty()) {
    throw CFailure(kExitUsage, "only one of TANSY_ACCESS_KEY and TANSY_SECRET_KEY is set", "set both, or neither");
  }
  return source;
}

// Completes the settings with the server of this name in the configuration, when there is a name.
void CompleteByName(Source& settings, const std::string& config_path, const std::string& name) {
  if (name.empty()) {
    return;
  }
  const std::optional<Source> source = ReadConfig(config_path, name);
  if (!source) {
    throw CFailure(kExitUsage, "there is no server named \"" + name + "\"",
                   "give http://HOST:PORT, or add [servers." + name + "] to " + config_path);
  }
  Complete(settings, *source);
}

ServerAddress AddressOf(const std::string& url, const std::string& source) {
  ServerAddress address;
  if (!ParseServerUrl(url, address)) {
    throw CFailure(kExitUsage, source + ": \"" + url + "\" is no server address", "give http://HOST:PORT");
  }
  return address;
}

// By default, tansyd's S3 door is two ports behind the object server. Behind the last ports there is none.
ServerAddress S3AddressOf(const Source& source, const ServerAddress& object_server) {
  if (!source.s3_url.empty() && source.s3_url != kNoDoor) {
    return AddressOf(source.s3_url, source.name);
  }
  ServerAddress address = object_server;
  const bool has_door = source.s3_url.empty() && object_server.port < 65534;
  address.port = has_door ? static_cast<std::uint16_t>(object_server.port + 2) : std::uint16_t{0};
  return address;
}

bool IsThisMachine(const std::string& host) {
  return host == "localhost" || host == "::1" || host.starts_with("127.");
}

// By default, tansyd's admin port is three ports behind the object server. It speaks HTTPS where strangers reach it.
ServerAddress AdminAddressOf(const Source& source, const ServerAddress& object_server) {
  if (!source.admin_url.empty() && source.admin_url != kNoDoor) {
    return AddressOf(source.admin_url, source.name);
  }
  ServerAddress address = object_server;
  address.is_https = !IsThisMachine(address.host);
  const bool has_port = source.admin_url.empty() && object_server.port < 65533;
  address.port = has_port ? static_cast<std::uint16_t>(object_server.port + 3) : std::uint16_t{0};
  return address;
}

Settings ToSettings(const Source& source) {
  Settings settings;
  settings.object_server = AddressOf(source.server_url, source.name);
  if (source.picture_url.empty()) {
    // By default, tansyd's picture port is the object port plus one. After the last port, that makes 0.
    settings.picture_server = settings.object_server;
    ++settings.picture_server.port;
  } else {
    settings.picture_server = AddressOf(source.picture_url, source.name);
  }
  settings.s3_server = S3AddressOf(source, settings.object_server);
  settings.admin_server = AdminAddressOf(source, settings.object_server);
  if (!source.s3_region.empty()) {
    settings.s3_region = source.s3_region;
  }
  settings.access_key = source.access_key;
  settings.secret_key = source.secret_key;
  settings.pool = source.pool;
  settings.ca = source.ca;
  settings.insecure = source.insecure;
  settings.data_folder = source.data_folder;
  settings.keys_file = source.keys_file;
  settings.source = source.name;
  return settings;
}

}  // namespace
}  // namespace details

std::string ServerAddress::HostText() const {
  return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

std::string ServerAddress::HostAndPort() const {
  return HostText() + ":" + std::to_string(port);
}

std::string ServerAddress::Url() const {
  return (is_https ? "https://" : "http://") + HostAndPort();
}

bool ParseServerUrl(const std::string& text, ServerAddress& address) {
  TansyNet::URL url;
  if (!TansyNet::URL::Parse(text, url) || url.target != "/") {
    return false;
  }
  address.is_https = url.scheme == "https";
  address.host = url.host;
  address.port = url.port;
  return true;
}

std::string TargetOnServer(const std::string& text, const ServerAddress& server, const std::string& how) {
  TansyNet::URL url;
  if (!TansyNet::URL::Parse(text, url)) {
    return text;
  }
  const ServerAddress named{url.scheme == "https", url.host, url.port};
  if (named != server) {
    throw CFailure(kExitUsage, named.Url() + " is not the server that is set, " + server.Url(),
                   "nothing was sent there; to trust it with a signature, " + how);
  }
  return url.target;
}

Settings FindSettings(const Globals& globals, const EnvironmentReader& environment) {
  const std::string config_path = details::ConfigPath(environment);
  std::string name;
  details::Source settings = details::Said(globals.server, globals.pool, globals.ca, "--server", name);
  settings.insecure = globals.insecure;
  details::CompleteByName(settings, config_path, name);
  if (!globals.data.empty()) {
    details::Complete(settings, details::ReadDataFolder(globals.data));
  }

  // When the command line names a server, the environment must not add another one.
  name.clear();
  details::Complete(settings, details::SaidByEnvironment(environment, name));
  const std::string data = environment("TANSY_DATA");
  if (globals.data.empty() && !data.empty()) {
    details::Complete(settings, details::ReadDataFolder(data));
  }
  if (settings.server_url.empty()) {
    details::CompleteByName(settings, config_path, name);
  }
  const bool has_data = !globals.data.empty() || !data.empty();
  if (!has_data || settings.server_url.empty()) {
    if (const auto source = details::ReadConfig(config_path, settings.server_url)) {
      details::Complete(settings, *source);
    }
  }
  const bool complete = !settings.server_url.empty() && !settings.access_key.empty();
  if (!complete && HostSystem::GetPathKind(details::kDefaultDataFolder) == HostSystem::EPathKind::kFolder) {
    details::Complete(settings, details::ReadDataFolder(details::kDefaultDataFolder));
  }
  if (settings.server_url.empty()) {
    throw CFailure(kExitUsage, "no server is known",
                   "give --server http://HOST:PORT, or --data DIR of a tansyd on this machine");
  }
  if (settings.access_key.empty() || settings.secret_key.empty()) {
    throw CFailure(kExitUsage, "no keys are known for " + settings.server_url,
                   "set TANSY_ACCESS_KEY and TANSY_SECRET_KEY, or add the server to " + config_path);
  }
  return details::ToSettings(settings);
}

const ServerAddress& PictureServer(const Settings& settings) {
  if (settings.picture_server.port == 0) {
    throw CFailure(kExitUsage, "no picture server is known for " + settings.object_server.Url(),
                   "name its picture_url in the configuration");
  }
  return settings.picture_server;
}

const ServerAddress& S3Server(const Settings& settings) {
  if (settings.s3_server.port == 0) {
    throw CFailure(kExitUsage, "no S3 door is known for " + settings.object_server.Url(),
                   "start tansyd with --s3-port, or name the address with s3_url in the configuration");
  }
  return settings.s3_server;
}

const ServerAddress& AdminServer(const Settings& settings) {
  if (settings.admin_server.port == 0) {
    throw CFailure(kExitUsage, "no admin port is known for " + settings.object_server.Url(),
                   "start tansyd with --admin-port, or name the address with admin_url in the configuration");
  }
  return settings.admin_server;
}

Settings UseSettings(const Globals& globals) {
  Settings settings = FindSettings(globals, HostSystem::Environment);
  TansyNet::HttpClient::SetTlsTrust({settings.ca, settings.insecure});
  return settings;
}

}  // namespace Tansy::Cli
