#include "ConsolePlace.h"

#include <algorithm>

#include "IpAddress.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint16_t kUsualHttpPort = 80;
constexpr std::uint16_t kUsualHttpsPort = 443;
constexpr std::size_t kLongestHost = 255;

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsNameCharacter(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' || c == '-' || c == '_';
}

// The text goes into headers and links, so nothing but a host passes.
bool IsHost(std::string_view text) {
  if (text.starts_with('[')) {
    const std::string inner(text.substr(1, text.size() - std::min<std::size_t>(text.size(), 2)));
    return text.ends_with(']') && inner.find(':') != std::string::npos && ParseIpAddress(inner).has_value();
  }
  return !text.empty() && text.size() <= kLongestHost && std::all_of(text.begin(), text.end(), IsNameCharacter);
}

// Cuts ":9703" off; empty when what stands there is no port.
std::optional<std::string_view> WithoutPort(std::string_view text) {
  const std::size_t bracket = text.find(']');
  const std::size_t colon = text.find(':', bracket == std::string_view::npos ? 0 : bracket);
  if (colon == std::string_view::npos) {
    return text;
  }
  const std::string_view port = text.substr(colon + 1);
  constexpr std::size_t kPortDigits = 5;
  if (port.empty() || port.size() > kPortDigits || !std::all_of(port.begin(), port.end(), IsDigit)) {
    return std::nullopt;
  }
  return text.substr(0, colon);
}

std::string HostWithPort(std::string_view host, std::uint16_t port, std::uint16_t usual_port) {
  return std::string(host) + (port == usual_port ? "" : ":" + std::to_string(port));
}

}  // namespace
}  // namespace details

std::optional<ConsolePlace> FindConsolePlace(std::string_view host_header, bool is_secure, std::uint16_t s3_port,
                                             std::uint16_t s3_https_port) {
  const std::optional<std::string_view> host = details::WithoutPort(host_header);
  if (!host.has_value() || !details::IsHost(*host)) {
    return std::nullopt;
  }
  ConsolePlace place;
  place.origin = (is_secure ? "https://" : "http://") + std::string(host_header);
  if (!is_secure && s3_port != 0) {
    place.s3_host = details::HostWithPort(*host, s3_port, details::kUsualHttpPort);
    place.s3 = "http://" + place.s3_host;
  } else if (s3_https_port != 0) {
    place.s3_host = details::HostWithPort(*host, s3_https_port, details::kUsualHttpsPort);
    place.s3 = "https://" + place.s3_host;
  }
  return place;
}

std::string ConsolePolicy(const ConsolePlace& place) {
  const std::string s3 = place.s3.empty() ? "" : " " + place.s3;
  return "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data:" + s3 +
         "; media-src blob:" + s3 + "; connect-src 'self'" + s3 + "; font-src 'self'; frame-src blob:" + s3 +
         "; frame-ancestors 'none'; base-uri 'none'; form-action 'none'";
}

}  // namespace Tansy::Host
