// Which server to talk to and with which keys.
//
// Looked for in this order, each value where it is first found:
//   1. options of the command line: what they say themselves, then what ~/.config/tansy/config.toml says of the server
//      that --server names, then what is in the data folder that --data names,
//   2. environment variables: TANSY_SERVER with TANSY_S3_URL and TANSY_ADMIN_URL, TANSY_POOL, TANSY_CA,
//      TANSY_ACCESS_KEY with TANSY_SECRET_KEY, then the data folder that TANSY_DATA names, then the server of the
//      configuration that TANSY_SERVER names,
//   3. the configuration's table for the address that was found, or without one its "default",
//   4. the data folder ./tansy-data, when it is there.
#ifndef TANSY_CLI_SETTINGS_H
#define TANSY_CLI_SETTINGS_H

#include <cstdint>
#include <functional>
#include <string>

namespace Tansy::Cli {

// Options that every command takes.
struct Globals {
  std::string server;
  std::string pool;
  std::string data;
  std::string ca;
  bool insecure = false;
  bool json = false;
  bool quiet = false;
  bool verbose = false;
};

// Where a server listens.
struct ServerAddress {
  bool is_https = false;
  std::string host;  // an IPv6 address has no brackets here
  std::uint16_t port = 0;

  // Gives "127.0.0.1" or "[::1]".
  std::string HostText() const;
  // Gives "127.0.0.1:9700".
  std::string HostAndPort() const;
  // Gives "http://127.0.0.1:9700".
  std::string Url() const;

  bool operator==(const ServerAddress&) const = default;
};

struct Settings {
  ServerAddress object_server;
  ServerAddress picture_server;  // its port is 0 when nothing names one: see PictureServer
  ServerAddress s3_server;       // likewise: see S3Server
  ServerAddress admin_server;    // likewise: see AdminServer
  std::string s3_region = "us-east-1";
  std::string access_key;
  std::string secret_key;
  std::string pool;  // empty when no place names one
  std::string ca;
  bool insecure = false;
  std::string data_folder;  // data folder of a tansyd on this machine; empty when the settings come from elsewhere
  std::string keys_file;    // file from which the keys come; empty for the environment
  std::string source;       // the place that named the server, for people
};

// Reads one environment variable; "" when there is none.
using EnvironmentReader = std::function<std::string(const char* name)>;

// Finds all settings and sends nothing. Throws CFailure with kExitUsage when there is no server or there are no keys,
// and with kExitFailed for files that cannot be read or make no sense.
Settings FindSettings(const Globals& globals, const EnvironmentReader& environment);
// Does the same with the process's own environment, and tells the HTTP library which certificates to trust.
Settings UseSettings(const Globals& globals);

// Gives the address of the picture server. Throws CFailure with kExitUsage when none is known.
const ServerAddress& PictureServer(const Settings& settings);
// Gives the address of the server's S3 door. Throws CFailure with kExitUsage when none is known.
const ServerAddress& S3Server(const Settings& settings);

// Gives the address of the server's admin port. Throws CFailure with kExitUsage when none is known.
const ServerAddress& AdminServer(const Settings& settings);

// Reads "http://HOST[:PORT]" or "https://HOST[:PORT]"; only a "/" may follow. Returns false when the text is something
// else.
bool ParseServerUrl(const std::string& text, ServerAddress& address);

// Gives path and query of a whole address, which must belong to `server`; any other text stays as it is. Throws
// CFailure with kExitUsage; `how` is the advice how to set another server.
std::string TargetOnServer(const std::string& text, const ServerAddress& server, const std::string& how);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_SETTINGS_H
