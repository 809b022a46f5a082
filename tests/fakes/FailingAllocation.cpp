#include "fakes/FailingAllocation.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

#ifdef _WIN32
#include <malloc.h>

#include "windows/ReplaceAllocation.h"
#endif

namespace {

// Allocations left until the one that fails; 0 or less: none does.
thread_local long of_this_thread = 0;
thread_local int count_of_this_thread = 0;
thread_local bool is_unharmed = false;
std::atomic<long> of_all_threads{0};

bool MustFail() {
  ++count_of_this_thread;
  const bool mine = of_this_thread > 0 && --of_this_thread == 0;
  const bool anyones =
      !is_unharmed && of_all_threads.load(std::memory_order_relaxed) > 0 && of_all_threads.fetch_sub(1) == 1;
  return mine || anyones;
}

#ifdef _WIN32
void* AllocateAligned(std::size_t size, std::size_t alignment) {
  return ::_aligned_malloc(size, alignment);
}
void ReleaseAligned(void* memory) {
  ::_aligned_free(memory);
}
[[maybe_unused]] const bool is_used_everywhere = Tansy::Tests::ReplaceAllocationEverywhere();
#else
void* AllocateAligned(std::size_t size, std::size_t alignment) {
  return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}
void ReleaseAligned(void* memory) {
  std::free(memory);
}
#endif

void* Allocate(std::size_t size, std::size_t alignment) {
  if (MustFail()) {
    return nullptr;
  }
  const std::size_t needed = size == 0 ? 1 : size;
  return alignment <= alignof(std::max_align_t) ? std::malloc(needed) : AllocateAligned(needed, alignment);
}

void FreeAligned(void* memory, std::align_val_t alignment) {
  if (static_cast<std::size_t>(alignment) <= alignof(std::max_align_t)) {
    std::free(memory);
  } else {
    ReleaseAligned(memory);
  }
}

void* AllocateOrThrow(std::size_t size, std::size_t alignment) {
  if (void* memory = Allocate(size, alignment)) {
    return memory;
  }
  throw std::bad_alloc();
}

constexpr std::size_t kUsual = alignof(std::max_align_t);

}  // namespace

void* operator new(std::size_t size) {
  return AllocateOrThrow(size, kUsual);
}
void* operator new[](std::size_t size) {
  return AllocateOrThrow(size, kUsual);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return AllocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return AllocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, kUsual);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, kUsual);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::align_val_t alignment) noexcept {
  FreeAligned(memory, alignment);
}
void operator delete[](void* memory, std::align_val_t alignment) noexcept {
  FreeAligned(memory, alignment);
}
void operator delete(void* memory, std::size_t, std::align_val_t alignment) noexcept {
  FreeAligned(memory, alignment);
}
void operator delete[](void* memory, std::size_t, std::align_val_t alignment) noexcept {
  FreeAligned(memory, alignment);
}

namespace Tansy::Tests {

CFailingAllocation::CFailingAllocation(std::size_t number) {
  of_this_thread = static_cast<long>(number);
}

CFailingAllocation::~CFailingAllocation() {
  of_this_thread = 0;
}

bool CFailingAllocation::HasFailed() const {
  return of_this_thread == 0;
}

CFailingAllocationAnywhere::CFailingAllocationAnywhere(std::size_t number) {
  of_all_threads = static_cast<long>(number);
}

CFailingAllocationAnywhere::~CFailingAllocationAnywhere() {
  of_all_threads = 0;
}

bool CFailingAllocationAnywhere::HasFailed() const {
  return of_all_threads.load() <= 0;
}

CAllocationCounter::CAllocationCounter() : before_(count_of_this_thread) {}

int CAllocationCounter::Count() const {
  return count_of_this_thread - before_;
}

CUnharmedThread::CUnharmedThread() : before_(std::exchange(is_unharmed, true)) {}

CUnharmedThread::~CUnharmedThread() {
  is_unharmed = before_;
}

}  // namespace Tansy::Tests
