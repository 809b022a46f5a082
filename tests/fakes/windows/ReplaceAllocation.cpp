#include "ReplaceAllocation.h"

#include <windows.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace Tansy::Tests {
namespace {

template <typename Function>
void* Address(Function* function) {
  return reinterpret_cast<void*>(function);
}

// Writes "go to `target`" over the first instructions of a function; there is room, because functions begin at
// multiples of 16 bytes.
void Redirect(void* function, void* target) {
  std::array<unsigned char, 12> code = {0x48, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xE0};  // mov rax, target; jmp rax
  std::memcpy(code.data() + 2, &target, sizeof target);
  DWORD before = 0;
  if (!::VirtualProtect(function, code.size(), PAGE_EXECUTE_READWRITE, &before)) {
    throw std::runtime_error("the standard library's code cannot be changed");
  }
  std::memcpy(function, code.data(), code.size());
  ::VirtualProtect(function, code.size(), before, &before);
  ::FlushInstructionCache(::GetCurrentProcess(), function, code.size());
}

struct Operator {
  const char* name;
  void* ours;
};

}  // namespace

bool ReplaceAllocationEverywhere() {
  using Align = std::align_val_t;
  using NoThrow = const std::nothrow_t&;
  const Operator operators[] = {
      {"_Znwy", Address(static_cast<void* (*)(std::size_t)>(&::operator new))},
      {"_Znay", Address(static_cast<void* (*)(std::size_t)>(&::operator new[]))},
      {"_ZnwySt11align_val_t", Address(static_cast<void* (*)(std::size_t, Align)>(&::operator new))},
      {"_ZnaySt11align_val_t", Address(static_cast<void* (*)(std::size_t, Align)>(&::operator new[]))},
      {"_ZnwyRKSt9nothrow_t", Address(static_cast<void* (*)(std::size_t, NoThrow)>(&::operator new))},
      {"_ZnayRKSt9nothrow_t", Address(static_cast<void* (*)(std::size_t, NoThrow)>(&::operator new[]))},
      {"_ZdlPv", Address(static_cast<void (*)(void*)>(&::operator delete))},
      {"_ZdaPv", Address(static_cast<void (*)(void*)>(&::operator delete[]))},
      {"_ZdlPvy", Address(static_cast<void (*)(void*, std::size_t)>(&::operator delete))},
      {"_ZdaPvy", Address(static_cast<void (*)(void*, std::size_t)>(&::operator delete[]))},
      {"_ZdlPvSt11align_val_t", Address(static_cast<void (*)(void*, Align)>(&::operator delete))},
      {"_ZdaPvSt11align_val_t", Address(static_cast<void (*)(void*, Align)>(&::operator delete[]))},
      {"_ZdlPvySt11align_val_t", Address(static_cast<void (*)(void*, std::size_t, Align)>(&::operator delete))},
      {"_ZdaPvySt11align_val_t", Address(static_cast<void (*)(void*, std::size_t, Align)>(&::operator delete[]))},
  };
  const HMODULE library = ::GetModuleHandleW(L"libstdc++-6.dll");
  for (const Operator& entry : operators) {
    void* const theirs = reinterpret_cast<void*>(::GetProcAddress(library, entry.name));
    if (theirs == nullptr) {
      throw std::runtime_error(std::string("the standard library has no ") + entry.name);
    }
    Redirect(theirs, entry.ours);
  }
  return true;
}

}  // namespace Tansy::Tests
