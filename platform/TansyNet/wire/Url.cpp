#include "TansyNet/wire/Url.h"

#include <algorithm>
#include <boost/asio/ip/address_v6.hpp>
#include <charconv>
#include <string>
#include <string_view>

namespace TansyNet {

namespace {

constexpr std::size_t kMaxHostLength = 255;

char LowerCase(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool IsAlphanumeric(char letter) {
  const char lower = LowerCase(letter);
  return (lower >= 'a' && lower <= 'z') || (letter >= '0' && letter <= '9');
}

bool IsBlankOrControl(char letter) {
  const auto value = static_cast<unsigned char>(letter);
  return value <= 0x20 || value == 0x7F;
}

bool ParseScheme(std::string_view& text, URL& url) {
  const std::size_t end = text.find("://");
  if (end == std::string_view::npos) {
    return false;
  }
  url.scheme.assign(text.substr(0, end));
  std::transform(url.scheme.begin(), url.scheme.end(), url.scheme.begin(), LowerCase);
  text.remove_prefix(end + 3);
  url.port = url.scheme == "https" ? 443 : 80;
  return url.scheme == "http" || url.scheme == "https";
}

bool ParsePort(std::string_view text, URL& url) {
  if (text.empty()) {
    return true;
  }
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size() || port == 0) {
    return false;
  }
  url.port = port;
  return true;
}

bool IsHostName(std::string_view host) {
  return !host.empty() && host.size() <= kMaxHostLength && std::all_of(host.begin(), host.end(), [](char letter) {
    return IsAlphanumeric(letter) || letter == '-' || letter == '.' || letter == '_';
  });
}

// The library accepts anything as the name of a zone, which follows "%"; here it must consist of a host name's
// characters.
bool IsIpv6Address(const std::string& text) {
  const std::size_t zone = text.find('%');
  if (zone != std::string::npos && !IsHostName(std::string_view(text).substr(zone + 1))) {
    return false;
  }
  boost::system::error_code error;
  boost::asio::ip::make_address_v6(text, error);
  return !error;
}

// Parses "[address]" with or without ":port" after it.
bool ParseBracketed(std::string_view authority, URL& url) {
  const std::size_t end = authority.find(']');
  if (end == std::string_view::npos) {
    return false;
  }
  url.host.assign(authority.substr(1, end - 1));
  const std::string_view rest = authority.substr(end + 1);
  if (url.host.size() > kMaxHostLength || !IsIpv6Address(url.host)) {
    return false;
  }
  return rest.empty() || (rest.front() == ':' && ParsePort(rest.substr(1), url));
}

bool ParseAuthority(std::string_view authority, URL& url) {
  if (!authority.empty() && authority.front() == '[') {
    return ParseBracketed(authority, url);
  }
  const std::size_t colon = authority.find(':');
  url.host.assign(authority.substr(0, colon));
  return IsHostName(url.host) && (colon == std::string_view::npos || ParsePort(authority.substr(colon + 1), url));
}

}  // namespace

bool URL::Parse(const std::string& text, URL& url) {
  url = URL();
  if (std::any_of(text.begin(), text.end(), IsBlankOrControl)) {
    return false;
  }
  URL parsed;
  // A fragment is for the reader of the URL only and is never sent.
  std::string_view rest = std::string_view(text).substr(0, text.find('#'));
  if (!ParseScheme(rest, parsed)) {
    return false;
  }
  const std::size_t end = std::min(rest.find_first_of("/?"), rest.size());
  if (!ParseAuthority(rest.substr(0, end), parsed)) {
    return false;
  }
  const std::string_view target = rest.substr(end);
  parsed.target = target.empty() || target.front() == '?' ? "/" + std::string(target) : std::string(target);
  url = parsed;
  return true;
}

}  // namespace TansyNet
