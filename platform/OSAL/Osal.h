// The host's portability runtime: the few system services that differ between operating systems.
// Threads: every function may be called from any thread. Nothing throws.
#ifndef TANSY_OSAL_OSAL_H
#define TANSY_OSAL_OSAL_H

#include <cstddef>
#include <cstdint>

// Interface types as IANA's ifType registry numbers them; the only ones that callers look at.
inline constexpr std::uint32_t OSAL_IF_TYPE_ETHERNET = 6;
inline constexpr std::uint32_t OSAL_IF_TYPE_SOFTWARE_LOOPBACK = 24;
inline constexpr std::uint32_t OSAL_IF_TYPE_TUNNEL = 131;

// Address families as OSAL_InetNtop takes them, the same numbers on every system.
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

// The machine's adapters that are up, one entry an adapter, in the system's order. Returns 0, or the system's error
// code (`*adapters` is then null). The caller gives the list back with OSAL_FreeAdapterInfo.
int OSAL_GetAdapterInfo(OSAL_AdapterInfo** adapters);
void OSAL_FreeAdapterInfo(OSAL_AdapterInfo* adapters);

// Tests replace the adapter list; null restores the system's. The function follows OSAL_GetAdapterInfo's contract and
// allocates with `new`.
using OSAL_AdapterSource = int (*)(OSAL_AdapterInfo** adapters);
void OSAL_SetAdapterSource(OSAL_AdapterSource source);

// Writes the text of a binary address (4 or 16 bytes in network order) into `buffer`. Returns 1, or 0 when the family
// is unknown or the buffer too small.
int OSAL_InetNtop(int family, const void* address, char* buffer, std::size_t buffer_size);

// Suspends the calling thread for at least this many milliseconds.
void OSAL_Sleep(std::uint32_t milliseconds);

// Names the calling thread for people who look at it in a debugger or in `top -H`. At most 15 characters: a longer name
// is cut. A system that refuses the name changes nothing else.
void OSAL_SetThreadName(const char* name);

// Reads a decimal integer as strtol does (leading blanks and a sign allowed, the rest ignored). Text without a number,
// or a null pointer, reads as 0; values that 32 bits cannot hold saturate.
std::int32_t OSAL_StrToi32(const char* text);

// Fills `count` bytes of a buffer of `size` bytes; a count beyond the size fills the buffer and returns -1, a null
// buffer too, else 0. Never optimised away.
int OSAL_Memset_s(void* buffer, std::size_t size, int value, std::size_t count);

#endif  // TANSY_OSAL_OSAL_H
