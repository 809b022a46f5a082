#ifndef TANSY_TESTS_LOGGING_ALLOCATION_COUNTER_H
#define TANSY_TESTS_LOGGING_ALLOCATION_COUNTER_H

namespace Tansy::Tests {

// Counts what the calling thread allocates with new while it lives.
class CAllocationCounter {
 public:
  CAllocationCounter();
  ~CAllocationCounter();
  CAllocationCounter(const CAllocationCounter&) = delete;
  CAllocationCounter& operator=(const CAllocationCounter&) = delete;

  int Count() const;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_LOGGING_ALLOCATION_COUNTER_H
