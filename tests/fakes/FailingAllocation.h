// Allocations that fail on demand. A test program that compiles FailingAllocation.cpp gets its operator new, which all
// libraries of the process use. What is allocated with malloc (by C libraries) never fails.
#ifndef TANSY_TESTS_FAKES_FAILING_ALLOCATION_H
#define TANSY_TESTS_FAKES_FAILING_ALLOCATION_H

#include <cstddef>
#include <new>

namespace Tansy::Tests {

// While it lives, one allocation of the calling thread fails with std::bad_alloc: the one with this number, counted
// from 1. All others succeed. A thread may have one such object at a time.
class CFailingAllocation {
 public:
  explicit CFailingAllocation(std::size_t number);
  ~CFailingAllocation();
  CFailingAllocation(const CFailingAllocation&) = delete;
  CFailingAllocation& operator=(const CFailingAllocation&) = delete;

  // Returns false when fewer allocations were made than that number.
  bool HasFailed() const;
};

// Does the same for the allocations of all threads together, except those that hold a CUnharmedThread. Only one such
// object may exist at a time.
class CFailingAllocationAnywhere {
 public:
  explicit CFailingAllocationAnywhere(std::size_t number);
  ~CFailingAllocationAnywhere();
  CFailingAllocationAnywhere(const CFailingAllocationAnywhere&) = delete;
  CFailingAllocationAnywhere& operator=(const CFailingAllocationAnywhere&) = delete;

  bool HasFailed() const;
};

// While it lives, allocations of the calling thread neither count nor fail anywhere. Such objects may be nested.
class CUnharmedThread {
 public:
  CUnharmedThread();
  ~CUnharmedThread();
  CUnharmedThread(const CUnharmedThread&) = delete;
  CUnharmedThread& operator=(const CUnharmedThread&) = delete;

 private:
  const bool before_;
};

// Counts the allocations of the calling thread while it lives.
class CAllocationCounter {
 public:
  CAllocationCounter();
  CAllocationCounter(const CAllocationCounter&) = delete;
  CAllocationCounter& operator=(const CAllocationCounter&) = delete;

  int Count() const;

 private:
  const int before_;
};

// Runs `action` with its first allocation failing, then with its second, until it makes fewer; a std::bad_alloc may
// leave it. Calls `check` after each of these runs, without failures.
template <typename Action, typename Check>
void FailEachAllocation(Action action, Check check) {
  constexpr std::size_t kNeverSoMany = 100000;
  for (std::size_t number = 1; number < kNeverSoMany; ++number) {
    bool has_failed = false;
    {
      const CFailingAllocation failing(number);
      try {
        action();
      } catch (const std::bad_alloc&) {
      }
      has_failed = failing.HasFailed();
    }
    check(number, has_failed);
    if (!has_failed) {
      return;
    }
  }
}

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_FAILING_ALLOCATION_H
