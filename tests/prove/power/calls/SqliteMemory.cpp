// Lets SQLite's own requests for memory fail. Those of the rest of the program are passed on.
#include <link.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "calls/Faults.h"
#include "calls/RealCalls.h"

namespace {

// Where the code of SQLite lies.
std::uintptr_t g_begin = 0;
std::uintptr_t g_end = 0;

int NoteLibrary(dl_phdr_info* info, std::size_t, void*) {
  if (std::string_view(info->dlpi_name).find("libsqlite3") == std::string_view::npos) {
    return 0;
  }
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& part = info->dlpi_phdr[i];
    if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0) {
      g_begin = info->dlpi_addr + part.p_vaddr;
      g_end = g_begin + part.p_memsz;
    }
  }
  return 1;
}

__attribute__((constructor)) void FindSqlite() {
  ::dl_iterate_phdr(&NoteLibrary, nullptr);
}

bool Fails(const void* caller) {
  const auto address = reinterpret_cast<std::uintptr_t>(caller);
  return address >= g_begin && address < g_end && prove::Count(prove::kCallMemory).error != 0;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) noexcept {
  static void* (*next)(std::size_t) = prove::Next<void* (*)(std::size_t)>("malloc");
  return Fails(__builtin_return_address(0)) ? nullptr : next(size);
}
void* realloc(void* memory, std::size_t size) noexcept {
  static void* (*next)(void*, std::size_t) = prove::Next<void* (*)(void*, std::size_t)>("realloc");
  return Fails(__builtin_return_address(0)) ? nullptr : next(memory, size);
}
}
