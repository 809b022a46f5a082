#include "StorageServer/S3Server/S3Cors.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace Tansy::CloudStorage::S3 {

namespace {

constexpr const char* kMethods = "GET, HEAD, PUT, POST, DELETE";
constexpr const char* kReadableHeaders =
    "Accept-Ranges, Content-Encoding, Content-Length, Content-Range, ETag, Last-Modified, x-amz-request-id, "
    "x-amz-version-id";
constexpr const char* kSecondsKept = "3000";

// Gives "[::1]" for "[::1]:9702".
std::string_view WithoutPort(std::string_view host) {
  const std::size_t bracket = host.find(']');
  return host.substr(0, host.find(':', bracket == std::string_view::npos ? 0 : bracket));
}

// Says whether a page came from this port of the host that `host` names.
bool IsFromPort(std::uint16_t port, std::string_view origin, std::string_view host) {
  constexpr std::array<std::pair<std::string_view, std::uint16_t>, 2> kUsualPorts = {
      {{"http://", 80}, {"https://", 443}}};
  return port != 0 && std::any_of(kUsualPorts.begin(), kUsualPorts.end(), [&](const auto& scheme) {
           return origin == std::string(scheme.first) + ToLower(WithoutPort(host)) +
                                (port == scheme.second ? "" : ":" + std::to_string(port));
         });
}

}  // namespace

std::string AllowedOrigin(const S3ServerConfig& config, const LowerHeaders& headers) {
  const std::string& origin = ValueOf(headers, "origin");
  if (origin.empty()) {
    return {};
  }
  const std::vector<std::string>& origins = config.cors_origins;
  if (std::find(origins.begin(), origins.end(), "*") != origins.end()) {
    return "*";
  }
  const bool is_allowed = std::find(origins.begin(), origins.end(), origin) != origins.end() ||
                          IsFromPort(config.page_port, origin, ValueOf(headers, "host"));
  return is_allowed ? origin : std::string();
}

void AddCorsHeaders(TansyNet::Headers& headers, const std::string& readers) {
  if (readers.empty()) {
    return;
  }
  headers["Access-Control-Allow-Origin"] = readers;
  headers["Access-Control-Expose-Headers"] = kReadableHeaders;
  headers["Vary"] = "Origin";
}

TansyNet::Headers PreflightHeaders(const LowerHeaders& request) {
  TansyNet::Headers headers = {{"Access-Control-Allow-Methods", kMethods}, {"Access-Control-Max-Age", kSecondsKept}};
  if (const std::string& asked = ValueOf(request, "access-control-request-headers"); !asked.empty()) {
    headers["Access-Control-Allow-Headers"] = asked;
  }
  return headers;
}

}  // namespace Tansy::CloudStorage::S3
