#include "OSAL/AdapterQuery.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#if defined(__linux__)
#include <net/if_arp.h>
#include <netpacket/packet.h>
#endif

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

namespace osal_internal {
namespace {

#if defined(__linux__)
constexpr unsigned short kHardwareIp6Gre = 823;  // older system headers do not name it
#endif

struct ListDeleter {
  void operator()(OSAL_AdapterInfo* list) const { OSAL_FreeAdapterInfo(list); }
};
using List = std::unique_ptr<OSAL_AdapterInfo, ListDeleter>;

OSAL_AdapterInfo& FindOrAppend(List& list, const char* name) {
  OSAL_AdapterInfo* last = nullptr;
  for (OSAL_AdapterInfo* adapter = list.get(); adapter != nullptr; adapter = adapter->next) {
    if (std::strncmp(adapter->name, name, sizeof adapter->name - 1) == 0) {
      return *adapter;
    }
    last = adapter;
  }
  auto* fresh = new OSAL_AdapterInfo;
  static_cast<void>(std::snprintf(fresh->name, sizeof fresh->name, "%s", name));
  if (last == nullptr) {
    list.reset(fresh);
  } else {
    last->next = fresh;
  }
  return *fresh;
}

template <typename Address>
Address& AppendAddress(Address** first) {
  while (*first != nullptr) {
    first = &(*first)->next;
  }
  *first = new Address;
  return **first;
}

// Tunnels are interfaces that carry other protocols' packets. Virtual private networks are not among them, because
// their addresses can be reached.
std::uint32_t HardwareType(const sockaddr& address) {
#if defined(__linux__)
  sockaddr_ll link{};
  std::memcpy(&link, &address, sizeof link);
  switch (link.sll_hatype) {
    case ARPHRD_LOOPBACK:
      return OSAL_IF_TYPE_SOFTWARE_LOOPBACK;
    case ARPHRD_TUNNEL:
    case ARPHRD_TUNNEL6:
    case ARPHRD_SIT:
    case ARPHRD_IPGRE:
    case kHardwareIp6Gre:
      return OSAL_IF_TYPE_TUNNEL;
    default:
      return OSAL_IF_TYPE_ETHERNET;
  }
#else
  static_cast<void>(address);
  return OSAL_IF_TYPE_ETHERNET;
#endif
}

void AddAddress(OSAL_AdapterInfo& adapter, const sockaddr& address) {
  switch (address.sa_family) {
    case AF_INET: {
      sockaddr_in ipv4{};
      std::memcpy(&ipv4, &address, sizeof ipv4);
      OSAL_Ipv4Address& entry = AppendAddress(&adapter.ipv4);
      inet_ntop(AF_INET, &ipv4.sin_addr, entry.text, sizeof entry.text);
      break;
    }
    case AF_INET6: {
      sockaddr_in6 ipv6{};
      std::memcpy(&ipv6, &address, sizeof ipv6);
      std::memcpy(AppendAddress(&adapter.ipv6).bytes, &ipv6.sin6_addr, sizeof(OSAL_Ipv6Address::bytes));
      break;
    }
#if defined(__linux__)
    case AF_PACKET:
      adapter.type = HardwareType(address);
      break;
#endif
    default:
      break;
  }
}

}  // namespace

int QueryAdapters(OSAL_AdapterInfo** adapters) {
  ifaddrs* raw = nullptr;
  if (getifaddrs(&raw) != 0) {
    return errno;
  }
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> entries(raw, &freeifaddrs);
  try {
    List list;
    for (const ifaddrs* entry = raw; entry != nullptr; entry = entry->ifa_next) {
      if ((entry->ifa_flags & IFF_UP) == 0) {
        continue;
      }
      OSAL_AdapterInfo& adapter = FindOrAppend(list, entry->ifa_name);
      if ((entry->ifa_flags & IFF_LOOPBACK) != 0) {
        adapter.type = OSAL_IF_TYPE_SOFTWARE_LOOPBACK;
      }
      if (entry->ifa_addr != nullptr) {
        AddAddress(adapter, *entry->ifa_addr);
      }
    }
    *adapters = list.release();
    return 0;
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

}  // namespace osal_internal

int OSAL_InetNtop(int family, const void* address, char* buffer, std::size_t buffer_size) {
  if (address == nullptr || buffer == nullptr || (family != OSAL_AF_INET && family != OSAL_AF_INET6)) {
    return 0;
  }
  const int system_family = family == OSAL_AF_INET ? AF_INET : AF_INET6;
  return inet_ntop(system_family, address, buffer, static_cast<socklen_t>(buffer_size)) != nullptr ? 1 : 0;
}
