#include "StorageClient/ServerAddress.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "TansyNet/HttpClient.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::string_view kSchemeEnd = "://";

char LowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool SameName(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return LowerCase(x) == LowerCase(y); });
}

std::string_view WithoutBrackets(std::string_view address) {
  const bool in_brackets = address.starts_with('[') && address.ends_with(']');
  return in_brackets ? address.substr(1, address.size() - 2) : address;
}

}  // namespace
}  // namespace details

const char* Scheme(const SStorageServerConfig& config) {
  return config.is_https ? "https://" : "http://";
}

std::string HostAndPort(const std::string& address, const std::string& port) {
  const bool bare_ipv6 = address.find(':') != std::string::npos && address.front() != '[';
  return (bare_ipv6 ? "[" + address + "]" : address) + ":" + port;
}

std::string NodeAddress(const std::string& node) {
  const std::size_t last_colon = node.rfind(':');
  const bool bare_ipv6 = !node.starts_with('[') && node.find(':') != last_colon;
  return bare_ipv6 ? HostAndPort(node.substr(0, last_colon), node.substr(last_colon + 1)) : node;
}

std::string AddressOfUrl(const std::string& url) {
  const std::size_t scheme = url.find(details::kSchemeEnd);
  const std::size_t begin = scheme == std::string::npos ? 0 : scheme + details::kSchemeEnd.size();
  return url.substr(begin, url.find('/', begin) - begin);
}

bool IsConfiguredServer(const SStorageServerConfig& config, const std::string& url) {
  TansyNet::URL parsed;
  if (!TansyNet::URL::Parse(url, parsed)) {
    return false;
  }
  return parsed.scheme + "://" == Scheme(config) &&
         details::SameName(parsed.host, details::WithoutBrackets(config.ip)) &&
         (parsed.port == config.upload_port || parsed.port == config.download_port);
}

}  // namespace Tansy::CloudStorage
