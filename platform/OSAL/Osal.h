// The host's portability runtime: the few system services that differ between operating systems.
// Threads: every function may be called from any thread. Nothing throws.
#ifndef TANSY_OSAL_OSAL_H
#define TANSY_OSAL_OSAL_H

#include <cstddef>
#include <cstdint>

#include "OSAL/AdapterInfo.h"

// Lists the machine's adapters that are up, with one entry per adapter, in the system's order. Returns 0 or the
// system's error code; `*adapters` is null after an error. The caller gives the list back with OSAL_FreeAdapterInfo.
int OSAL_GetAdapterInfo(OSAL_AdapterInfo** adapters);

// Lets tests replace the adapter list; null restores the system's. The function has the same contract as
// OSAL_GetAdapterInfo and allocates with `new`.
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

// Fills `count` bytes of a buffer of `size` bytes and returns 0. A count beyond the size fills the buffer and returns
// -1; a null buffer returns -1 too. The compiler never removes the call.
int OSAL_Memset_s(void* buffer, std::size_t size, int value, std::size_t count);

#endif  // TANSY_OSAL_OSAL_H
