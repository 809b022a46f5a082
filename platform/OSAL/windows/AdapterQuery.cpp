// winsock2.h must come before the headers that would bring its predecessor in.
// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
// clang-format on

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "OSAL/AdapterQuery.h"

#pragma comment(lib, "iphlpapi.lib")
#pragma comment(lib, "ws2_32.lib")

namespace osal_internal {
namespace {

struct ListDeleter {
  void operator()(OSAL_AdapterInfo* list) const { OSAL_FreeAdapterInfo(list); }
};

constexpr ULONG kQueryFlags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;

// The list may grow between the question for its size and the question for the list itself, so there are several
// rounds.
ULONG QuerySystem(std::vector<unsigned char>& buffer) {
  ULONG size = 16 * 1024;
  ULONG result = ERROR_BUFFER_OVERFLOW;
  for (int round = 0; round < 4 && result == ERROR_BUFFER_OVERFLOW; ++round) {
    buffer.resize(size);
    result = GetAdaptersAddresses(AF_UNSPEC, kQueryFlags, nullptr,
                                  reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()), &size);
  }
  return result;
}

void AddAddresses(OSAL_AdapterInfo& adapter, const IP_ADAPTER_UNICAST_ADDRESS* address) {
  OSAL_Ipv4Address** next_ipv4 = &adapter.ipv4;
  OSAL_Ipv6Address** next_ipv6 = &adapter.ipv6;
  for (; address != nullptr; address = address->Next) {
    const SOCKADDR* socket_address = address->Address.lpSockaddr;
    if (socket_address->sa_family == AF_INET) {
      *next_ipv4 = new OSAL_Ipv4Address;
      InetNtopA(AF_INET, &reinterpret_cast<const SOCKADDR_IN*>(socket_address)->sin_addr, (*next_ipv4)->text,
                sizeof((*next_ipv4)->text));
      next_ipv4 = &(*next_ipv4)->next;
    } else if (socket_address->sa_family == AF_INET6) {
      *next_ipv6 = new OSAL_Ipv6Address;
      std::memcpy((*next_ipv6)->bytes, &reinterpret_cast<const SOCKADDR_IN6*>(socket_address)->sin6_addr,
                  sizeof((*next_ipv6)->bytes));
      next_ipv6 = &(*next_ipv6)->next;
    }
  }
}

}  // namespace

int QueryAdapters(OSAL_AdapterInfo** adapters) {
  try {
    std::vector<unsigned char> buffer;
    const ULONG result = QuerySystem(buffer);
    if (result == ERROR_NO_DATA) {
      return 0;
    }
    if (result != NO_ERROR) {
      return static_cast<int>(result);
    }
    std::unique_ptr<OSAL_AdapterInfo, ListDeleter> list;
    OSAL_AdapterInfo* last = nullptr;
    for (const auto* entry = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(buffer.data()); entry != nullptr;
         entry = entry->Next) {
      if (entry->OperStatus != IfOperStatusUp) {
        continue;
      }
      auto* fresh = new OSAL_AdapterInfo;
      if (last == nullptr) {
        list.reset(fresh);
      } else {
        last->next = fresh;
      }
      last = fresh;
      static_cast<void>(std::snprintf(fresh->name, sizeof fresh->name, "%s", entry->AdapterName));
      fresh->type = entry->IfType;
      AddAddresses(*fresh, entry->FirstUnicastAddress);
    }
    *adapters = list.release();
    return 0;
  } catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
  }
}

}  // namespace osal_internal

int OSAL_InetNtop(int family, const void* address, char* buffer, std::size_t buffer_size) {
  if (address == nullptr || buffer == nullptr || (family != OSAL_AF_INET && family != OSAL_AF_INET6)) {
    return 0;
  }
  const int system_family = family == OSAL_AF_INET ? AF_INET : AF_INET6;
  return InetNtopA(system_family, address, buffer, buffer_size) != nullptr ? 1 : 0;
}
