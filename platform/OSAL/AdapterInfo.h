// The list of a machine's adapters, and addresses as text.
#ifndef TANSY_OSAL_ADAPTER_INFO_H
#define TANSY_OSAL_ADAPTER_INFO_H

#include <cstddef>
#include <cstdint>

// Interface types as IANA's ifType registry numbers them. Only these are of interest to callers.
inline constexpr std::uint32_t OSAL_IF_TYPE_ETHERNET = 6;
inline constexpr std::uint32_t OSAL_IF_TYPE_SOFTWARE_LOOPBACK = 24;
inline constexpr std::uint32_t OSAL_IF_TYPE_TUNNEL = 131;

// Address families as OSAL_InetNtop takes them; they are the same numbers on every system.
inline constexpr int OSAL_AF_INET = 2;
inline constexpr int OSAL_AF_INET6 = 23;

struct OSAL_Ipv4Address {
  char text[16] = {};  // dotted decimal, NUL-terminated
  OSAL_Ipv4Address* next = nullptr;
};

struct OSAL_Ipv6Address {
  unsigned char bytes[16] = {};  // network order
  OSAL_Ipv6Address* next = nullptr;
};

struct OSAL_AdapterInfo {
  char name[260] = {};
  std::uint32_t type = OSAL_IF_TYPE_ETHERNET;
  OSAL_Ipv4Address* ipv4 = nullptr;
  OSAL_Ipv6Address* ipv6 = nullptr;
  OSAL_AdapterInfo* next = nullptr;
};

// Frees a whole list whose entries were made with `new`. Null is an empty list.
void OSAL_FreeAdapterInfo(OSAL_AdapterInfo* adapters);

// Writes the text of a binary address (4 or 16 bytes in network order) into `buffer`. Returns 1, or 0 when the family
// is unknown or the buffer too small.
int OSAL_InetNtop(int family, const void* address, char* buffer, std::size_t buffer_size);

#endif  // TANSY_OSAL_ADAPTER_INFO_H
