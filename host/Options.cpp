#include "Options.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <sstream>
#include <type_traits>
#include <utility>

#include "IpAddress.h"
#include "PrintableText.h"
#include "RadosUrl.h"
#include "StartFailure.h"
#include "TansyNet/MemoryAccount.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kLongestShownValue = 80;

// Makes a value fit for a message: short, and without anything that could break the line.
std::string Shown(const std::string& text) {
  return "\"" + Printable(text.substr(0, kLongestShownValue)) + (text.size() > kLongestShownValue ? "...\"" : "\"");
}

bool ParseNumber(const std::string& text, unsigned long lowest, unsigned long highest, unsigned long& number) {
  const char* end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, number);
  return error == std::errc{} && position == end && number >= lowest && number <= highest;
}

template <std::uint16_t HostOptions::*Member, int Lowest>
std::string ApplyPort(HostOptions& options, const std::string& text) {
  unsigned long number = 0;
  if (!ParseNumber(text, Lowest, 65535, number)) {
    return Lowest == 0 ? "give a port from 1 to 65535, or 0 for none" : "give a port from 1 to 65535";
  }
  options.*Member = static_cast<std::uint16_t>(number);
  return "";
}

std::string ApplyAdminPort(HostOptions& options, const std::string& text) {
  unsigned long number = 0;
  if (!ParseNumber(text, 0, 65535, number)) {
    return "give a port from 1 to 65535, or 0 for none";
  }
  options.admin_port = static_cast<std::uint16_t>(number);
  return "";
}

template <std::string HostOptions::*Member>
std::string ApplyIp(HostOptions& options, const std::string& text) {
  const std::optional<IpAddress> address = ParseIpAddress(text);
  if (!address.has_value()) {
    return "give an IPv4 or IPv6 address";
  }
  if (address->is_any) {
    return "give an address that clients can connect to";
  }
  options.*Member = address->text;
  return "";
}

template <std::vector<std::string> HostOptions::*Member>
std::string ApplyListen(HostOptions& options, const std::string& text) {
  std::vector<std::string> addresses;
  std::size_t begin = 0;
  while (begin <= text.size()) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    const std::optional<IpAddress> address = ParseIpAddress(text.substr(begin, end - begin));
    if (!address.has_value()) {
      return "give IPv4 or IPv6 addresses";
    }
    if (std::find(addresses.begin(), addresses.end(), address->text) != addresses.end()) {
      return "give each address once";
    }
    addresses.push_back(address->text);
    begin = end + 1;
  }
  options.*Member = std::move(addresses);
  return "";
}

template <std::string HostOptions::*Member>
std::string ApplyPath(HostOptions& options, const std::string& text) {
  if (text.empty() || text.find('\0') != std::string::npos) {
    return "give a path";
  }
  options.*Member = text;
  return "";
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

std::string ApplyDatabase(HostOptions& options, const std::string& text) {
  return ParseDatabaseUrl(text, options.database);
}

std::string ApplyStorage(HostOptions& options, const std::string& text) {
  RadosUrl pool;
  const bool is_folder = StartsWith(text, "file:") && !UrlPath(text).empty();
  if (!is_folder && !ParseRadosUrl(text, pool)) {
    return "give file:DIR or rados://POOL?conf=FILE&id=NAME&namespace=NS";
  }
  options.storage = text;
  return "";
}

std::string ApplyNodeName(HostOptions& options, const std::string& text) {
  constexpr std::size_t kLongest = 64;
  const bool fits = !text.empty() && text.size() <= kLongest && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_' ||
           c == '.';
  });
  if (!fits) {
    return "give up to 64 letters, digits, \".\", \"-\" and \"_\"";
  }
  options.node_name = text;
  return "";
}

std::string ApplyDurability(HostOptions& options, const std::string& text) {
  if (text != "full" && text != "fast") {
    return "give full or fast";
  }
  options.full_durability = text == "full";
  return "";
}

std::string ApplyRegion(HostOptions& options, const std::string& text) {
  constexpr std::size_t kLongest = 63;
  const bool is_name = !text.empty() && text.size() <= kLongest && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
  });
  if (!is_name) {
    return "give at most 63 small letters, digits and dashes";
  }
  options.s3_region = text;
  return "";
}

std::string ApplyDomain(HostOptions& options, const std::string& text) {
  constexpr std::size_t kLongest = 253;
  const auto fits = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.'; };
  const bool is_name = !text.empty() && text.size() <= kLongest && std::all_of(text.begin(), text.end(), fits) &&
                       text.front() != '.' && text.back() != '.';
  if (!is_name) {
    return "give a host name in small letters";
  }
  options.s3_domain = text;
  return "";
}

bool IsOrigin(const std::string& text) {
  const std::size_t scheme = text.find("://");
  return text == "*" ||
         (scheme != std::string::npos && scheme > 0 && scheme + 3 < text.size() &&
          text.find('/', scheme + 3) == std::string::npos && text.find_first_of(" \t\"") == std::string::npos);
}

std::string ApplyCorsOrigins(HostOptions& options, const std::string& text) {
  std::vector<std::string> origins;
  std::istringstream pieces(text);
  for (std::string piece; std::getline(pieces, piece, ',');) {
    if (!IsOrigin(piece)) {
      return "give origins such as https://example.org, or *";
    }
    origins.push_back(piece);
  }
  if (origins.empty()) {
    return "give origins such as https://example.org, or *";
  }
  options.s3_cors_origins = std::move(origins);
  return "";
}

std::string ApplyAccessLogFormat(HostOptions& options, const std::string& text) {
  if (text != "combined" && text != "json") {
    return "give combined or json";
  }
  options.access_log_json = text == "json";
  return "";
}

template <bool HostOptions::*Member>
std::string ApplySwitch(HostOptions& options, const std::string& text) {
  if (text != "on" && text != "off") {
    return "give on or off";
  }
  options.*Member = text == "on";
  return "";
}

template <auto Member>
std::string ApplyNumber(HostOptions& options, const std::string& text, unsigned long lowest, unsigned long highest,
                        const char* advice) {
  unsigned long number = 0;
  if (!ParseNumber(text, lowest, highest, number)) {
    return advice;
  }
  options.*Member = static_cast<std::decay_t<decltype(options.*Member)>>(number);
  return "";
}

std::string ApplyKeepRemoved(HostOptions& options, const std::string& text) {
  return ApplyNumber<&HostOptions::keep_removed_days>(options, text, 0, 36500, "give a number of days from 0 to 36500");
}

std::string ApplyKeepFailed(HostOptions& options, const std::string& text) {
  return ApplyNumber<&HostOptions::keep_failed_seconds>(options, text, 1, 86400,
                                                        "give a number of seconds from 1 to 86400");
}

std::string ApplyMemoryLimit(HostOptions& options, const std::string& text) {
  constexpr unsigned long kLeast = TansyNet::CMemoryAccount::kSmallestLimit >> 20;
  constexpr unsigned long kMost = 1024UL * 1024;
  unsigned long number = 0;
  if (!ParseNumber(text, kLeast, kMost, number)) {
    return "give a number of MiB from 256 to 1048576";
  }
  options.memory_limit_mib = static_cast<std::uint32_t>(number);
  return "";
}

std::string ApplyRequireDate(HostOptions& options, const std::string& text) {
  return ApplyNumber<&HostOptions::require_date_minutes>(options, text, 0, 10080,
                                                         "give minutes from 1 to 10080 (a week), or 0 for no check");
}

std::string ApplyLogLevel(HostOptions& options, const std::string& text) {
  return ApplyNumber<&HostOptions::log_level>(options, text, 2, 5,
                                              "give a level from 2 (everything) to 5 (errors only)");
}

const OptionRow* FindRow(const std::string& name) {
  for (const OptionRow& row : OptionTable()) {
    if (name == row.name) {
      return &row;
    }
  }
  return nullptr;
}

}  // namespace
}  // namespace details

const std::vector<OptionRow>& OptionTable() {
  using details::ApplyIp;
  using details::ApplyPath;
  using details::ApplyPort;
  static const std::vector<OptionRow> rows = {
      {"data", "DIR", "folder that holds everything tansyd keeps; made when missing [./tansy-data]",
       ApplyPath<&HostOptions::data>},
      {"config", "FILE", "settings file with the same names as these options [tansyd.toml in the data folder]",
       ApplyPath<&HostOptions::config>},
      {"object-port", "N", "HTTP port of the object protocol [9700]", ApplyPort<&HostOptions::object_port, 1>},
      {"object-https-port", "N", "HTTPS port of the object protocol, 0 for none [9743]",
       ApplyPort<&HostOptions::object_https_port, 0>},
      {"picture-port", "N", "HTTP port of the picture protocol [9701]", ApplyPort<&HostOptions::picture_port, 1>},
      {"picture-https-port", "N", "HTTPS port of the picture protocol, 0 for none [9744]",
       ApplyPort<&HostOptions::picture_https_port, 0>},
      {"s3-port", "N", "HTTP port of the S3 protocol, 0 for none [9702]", ApplyPort<&HostOptions::s3_port, 0>},
      {"s3-https-port", "N", "HTTPS port of the S3 protocol, 0 for none [9745]",
       ApplyPort<&HostOptions::s3_https_port, 0>},
      {"admin-port", "N", "port for health, figures and running requests, 0 for none [9703]", details::ApplyAdminPort},
      {"admin-listen", "IP",
       "address of that port, several times if need be; HTTPS and the keys are asked for at others than loopback "
       "[127.0.0.1]",
       details::ApplyListen<&HostOptions::admin_listen>, true},
      {"s3-region", "NAME", "region that clients of the S3 protocol sign for [us-east-1]", details::ApplyRegion},
      {"s3-domain", "NAME", "host name below which the S3 protocol takes BUCKET.NAME for that bucket [none]",
       details::ApplyDomain},
      {"s3-v2-links", "on|off", "take links that are signed by version 2 [on]",
       details::ApplySwitch<&HostOptions::s3_v2_links>},
      {"s3-cors-origin", "ORIGIN",
       "origin whose web pages may use the S3 protocol, several times if need be, * for all [none]",
       details::ApplyCorsOrigins, true},
      {"listen", "IP", "address to listen on, several times if need be [all of this machine]",
       details::ApplyListen<&HostOptions::listen>, true},
      {"local-ip", "IP", "address that best-node answers name [that of this machine, else 127.0.0.1]",
       ApplyIp<&HostOptions::local_ip>},
      {"wan-ip", "IP", "address that best-node answers name to clients from outside [none]",
       ApplyIp<&HostOptions::wan_ip>},
      {"wan-object-port", "N", "port of the object protocol at the WAN address [0]",
       ApplyPort<&HostOptions::wan_object_port, 0>},
      {"wan-picture-port", "N", "port of the picture protocol at the WAN address [0]",
       ApplyPort<&HostOptions::wan_picture_port, 0>},
      {"wan-object-https-port", "N", "HTTPS port of the object protocol at the WAN address [0]",
       ApplyPort<&HostOptions::wan_object_https_port, 0>},
      {"wan-picture-https-port", "N", "HTTPS port of the picture protocol at the WAN address [0]",
       ApplyPort<&HostOptions::wan_picture_https_port, 0>},
      {"database", "URL",
       "catalogue: sqlite:FILE, in the data folder, or postgresql://USER@HOST:PORT/NAME [sqlite:catalogue.db]",
       details::ApplyDatabase},
      {"storage", "URL",
       "stored bytes: file:DIR, in the data folder, or rados://POOL?conf=FILE&id=NAME&namespace=NS, in a Ceph pool "
       "[file:objects]",
       details::ApplyStorage},
      {"node-name", "NAME", "the name of this tansyd among several on one PostgreSQL database and storage [none]",
       details::ApplyNodeName},
      {"durability", "full|fast", "full: 200 to a write means it is on stable storage [full]",
       details::ApplyDurability},
      {"memory-limit", "MIB", "memory that bodies and answers of all clients may take together [1024]",
       details::ApplyMemoryLimit, false, true},
      {"require-date", "MINUTES",
       "refuse signatures whose Date is missing or further off than this; 0: do not look [0]",
       details::ApplyRequireDate, false, true},
      {"keep-removed", "DAYS", "how long the bytes of objects that were removed by a plain DELETE are kept [7]",
       details::ApplyKeepRemoved},
      {"keep-failed", "SECONDS",
       "how long the bytes of uploads that failed, broke off or were overwritten are kept [300]",
       details::ApplyKeepFailed},
      {"log-level", "N", "lowest level written, 2 (everything) to 5 (errors only) [3]", details::ApplyLogLevel, false,
       true},
      {"log-file", "FILE", "where the log goes [standard error]", ApplyPath<&HostOptions::log_file>},
      {"access-log", "FILE", "where a line for each request goes, - for standard output [none]",
       ApplyPath<&HostOptions::access_log>},
      {"access-log-format", "combined|json", "how these lines look [combined]", details::ApplyAccessLogFormat},
      {"server-timing", "on|off", "say in each answer how long it took, as Server-Timing [off]",
       details::ApplySwitch<&HostOptions::server_timing>, false, true},
  };
  return rows;
}

void ApplyOptions(HostOptions& options, const OptionTexts& texts, const std::string& source, const std::string& prefix,
                  int exit_code) {
  for (const auto& [name, text] : texts) {
    const OptionRow* row = details::FindRow(name);
    if (row == nullptr) {
      throw CStartFailure(exit_code, source + "unknown option " + prefix + name);
    }
    const std::string advice = row->apply(options, text);
    if (advice.empty()) {
      continue;
    }
    // A URL may hold a password.
    const bool is_url = name == "database" || name == "storage";
    throw CStartFailure(
        exit_code, source + prefix + name + (is_url ? "" : " " + details::Shown(text)) + " is not valid: " + advice);
  }
}

bool HostOptions::NeedsCertificate() const {
  return HasHttps() || std::any_of(admin_listen.begin(), admin_listen.end(), [](const std::string& address) {
           const std::optional<IpAddress> parsed = ParseIpAddress(address);
           return !parsed.has_value() || !parsed->is_loopback;
         });
}

ChangedOptions CompareOptions(const OptionTexts& before, const OptionTexts& now) {
  const auto text_of = [](const OptionTexts& texts, const std::string& name) {
    const auto found = texts.find(name);
    return found == texts.end() ? std::optional<std::string>() : found->second;
  };
  ChangedOptions changed;
  for (const OptionRow& row : OptionTable()) {
    if (text_of(before, row.name) != text_of(now, row.name)) {
      (row.is_live ? changed.live : changed.others).emplace_back(row.name);
    }
  }
  return changed;
}

void CheckPorts(const HostOptions& options) {
  const std::pair<const char*, std::uint16_t> ports[] = {{"object-port", options.object_port},
                                                         {"object-https-port", options.object_https_port},
                                                         {"picture-port", options.picture_port},
                                                         {"picture-https-port", options.picture_https_port},
                                                         {"s3-port", options.s3_port},
                                                         {"s3-https-port", options.s3_https_port},
                                                         {"admin-port", options.admin_port.value_or(0)}};
  for (const auto& [name, port] : ports) {
    for (const auto& [other_name, other_port] : ports) {
      if (name != other_name && port != 0 && port == other_port) {
        throw CStartFailure(kExitUsage, std::string(name) + " and " + other_name + " are both " + std::to_string(port) +
                                            ": give each a port of its own");
      }
    }
  }
  if (!options.wan_ip.empty() && !options.HasWanObjects() && !options.HasWanPictures()) {
    throw CStartFailure(kExitUsage,
                        "wan-ip is of no use without a port: give wan-object-port, wan-picture-port or the like too");
  }
}

std::string UrlPath(const std::string& url) {
  return url.substr(url.find(':') + 1);
}

}  // namespace Tansy::Host
