#include "Addresses.h"

#include "OSAL/Osal.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kAddressTextSize = 64;

bool IsUsable(const OSAL_AdapterInfo& adapter) {
  return adapter.type != OSAL_IF_TYPE_SOFTWARE_LOOPBACK && adapter.type != OSAL_IF_TYPE_TUNNEL;
}

}  // namespace
}  // namespace details

std::vector<std::string> AdapterAddresses() {
  std::vector<std::string> ipv4;
  std::vector<std::string> ipv6;
  OSAL_AdapterInfo* adapters = nullptr;
  if (OSAL_GetAdapterInfo(&adapters) != 0) {
    return {};
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

std::string DefaultLocalIp() {
  const std::vector<std::string> addresses = AdapterAddresses();
  return addresses.empty() ? "127.0.0.1" : addresses.front();
}

std::string UrlHost(const std::string& ip) {
  return ip.find(':') == std::string::npos ? ip : "[" + ip + "]";
}

}  // namespace Tansy::Host
