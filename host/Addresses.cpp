#include "Addresses.h"

#include <algorithm>

#include "IpAddress.h"
#include "OSAL/Osal.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kAddressTextSize = 64;

bool IsUsable(const OSAL_AdapterInfo& adapter) {
  return adapter.type != OSAL_IF_TYPE_SOFTWARE_LOOPBACK && adapter.type != OSAL_IF_TYPE_TUNNEL;
}

constexpr const char* kAnyIpv4 = "0.0.0.0";
constexpr const char* kAnyIpv6 = "::";

// Lists each address that is listened on, with the adapters' addresses in place of "any".
std::vector<IpAddress> Expand(const std::vector<std::string>& listen, const std::vector<std::string>& adapters) {
  std::vector<IpAddress> addresses;
  for (const std::string& text : listen) {
    const std::optional<IpAddress> wanted = ParseIpAddress(text);
    if (wanted.has_value() && !wanted->is_any) {
      addresses.push_back(*wanted);
    }
    for (const std::string& own : adapters) {
      const std::optional<IpAddress> address = ParseIpAddress(own);
      // An IPv6 address that counts on one network only must be given together with an adapter, which a URL cannot do.
      const bool is_reachable = address.has_value() && !(address->is_ipv6 && address->is_link_local);
      if (is_reachable && wanted.has_value() && wanted->is_any && address->is_ipv6 == wanted->is_ipv6) {
        addresses.push_back(*address);
      }
    }
  }
  return addresses;
}

// A lower rank means that more clients can use the address.
int Rank(const IpAddress& address) {
  const int family = address.is_ipv6 ? 1 : 0;
  if (address.is_loopback) {
    return 4 + family;
  }
  return address.is_link_local ? 2 + family : family;
}

bool ListensOn(const std::vector<std::string>& listen, const std::string& address) {
  return std::find(listen.begin(), listen.end(), address) != listen.end();
}

}  // namespace
}  // namespace details

std::optional<std::vector<std::string>> AdapterAddresses() {
  std::vector<std::string> ipv4;
  std::vector<std::string> ipv6;
  OSAL_AdapterInfo* adapters = nullptr;
  if (OSAL_GetAdapterInfo(&adapters) != 0) {
    return std::nullopt;
  }
  for (const OSAL_AdapterInfo* adapter = adapters; adapter != nullptr; adapter = adapter->next) {
    if (!details::IsUsable(*adapter)) {
      continue;
    }
    for (const OSAL_Ipv4Address* address = adapter->ipv4; address != nullptr; address = address->next) {
      ipv4.emplace_back(address->text);
    }
    for (const OSAL_Ipv6Address* address = adapter->ipv6; address != nullptr; address = address->next) {
      char text[details::kAddressTextSize];
      if (OSAL_InetNtop(OSAL_AF_INET6, address->bytes, text, sizeof text) != 0) {
        ipv6.emplace_back(text);
      }
    }
  }
  OSAL_FreeAdapterInfo(adapters);
  ipv4.insert(ipv4.end(), ipv6.begin(), ipv6.end());
  return ipv4;
}

std::string ChooseLocalIp(const std::vector<std::string>& listen, const std::vector<std::string>& adapters) {
  if (listen.empty()) {
    return ChooseLocalIp({details::kAnyIpv4, details::kAnyIpv6}, adapters);
  }
  const std::vector<IpAddress> addresses = details::Expand(listen, adapters);
  const auto best = std::min_element(addresses.begin(), addresses.end(), [](const IpAddress& a, const IpAddress& b) {
    return details::Rank(a) < details::Rank(b);
  });
  return best == addresses.end() ? LoopbackAddress(listen) : best->text;
}

std::string LoopbackAddress(const std::vector<std::string>& listen) {
  using details::ListensOn;
  if (listen.empty() || ListensOn(listen, details::kAnyIpv4) || ListensOn(listen, "127.0.0.1")) {
    return "127.0.0.1";
  }
  return ListensOn(listen, details::kAnyIpv6) || ListensOn(listen, "::1") ? "::1" : listen.front();
}

std::string UrlHost(const std::string& ip) {
  return ip.find(':') == std::string::npos ? ip : "[" + ip + "]";
}

}  // namespace Tansy::Host
