#include "AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {

thread_local bool counting = false;
thread_local int allocations = 0;

}  // namespace

// The program's own operators: every library in it allocates through them.
void* operator new(std::size_t size) {
  allocations += counting ? 1 : 0;
  if (void* memory = std::malloc(size == 0 ? 1 : size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace Tansy::Tests {

CAllocationCounter::CAllocationCounter() {
  allocations = 0;
  counting = true;
}
CAllocationCounter::~CAllocationCounter() {
  counting = false;
}
int CAllocationCounter::Count() const {
  return allocations;
}

}  // namespace Tansy::Tests
