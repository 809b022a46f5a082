// The host's portability runtime: the few system services that differ between operating systems.
// Threads: every function may be called from any thread. Nothing throws.
#ifndef TANSY_OSAL_OSAL_H
#define TANSY_OSAL_OSAL_H

#include <cstddef>
#include <cstdint>

#include "OSAL/AdapterInfo.h"

// The machine's adapters that are up, one entry an adapter, in the system's order. Returns 0, or the system's error
// code (`*adapters` is then null). The caller gives the list back with OSAL_FreeAdapterInfo.
int OSAL_GetAdapterInfo(OSAL_AdapterInfo** adapters);

// Tests replace the adapter list; null restores the system's. The function follows OSAL_GetAdapterInfo's contract and
// allocates with `new`.
using OSAL_AdapterSource = int (*)(OSAL_AdapterInfo** adapters);
void OSAL_SetAdapterSource(OSAL_AdapterSource source);

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
