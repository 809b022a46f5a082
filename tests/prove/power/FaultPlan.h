// Which file call of a server fails: a small file that the test and the server's process both have in memory.
#ifndef TANSY_TESTS_PROVE_POWER_FAULT_PLAN_H
#define TANSY_TESTS_PROVE_POWER_FAULT_PLAN_H

#include <atomic>
#include <cstdint>

namespace prove {

enum ECall : std::uint32_t {
  kCallOpen = 1,  // open, also for reading
  kCallRead = 2,
  kCallWrite = 4,
  kCallSync = 8,  // of a file or a folder
  kCallResize = 16,
  kCallRename = 32,
  kCallRemove = 64,
  kCallMakeFolder = 128,
  kEveryCall = 255,   // of those above
  kCallMemory = 256,  // memory that SQLite asks for
};

enum class EFault : std::uint32_t {
  kError,  // the call does nothing and gives `error`
  kShort,  // a read or a write moves only half of its bytes; other calls are left alone
  kSlow,   // the call takes a while
  // As a server would behave that does not look at what its calls give: what failed is told to have been done.
  kUntold,
};

struct FaultPlan {
  std::atomic<std::uint32_t> calls{0};      // which calls count; 0: none
  std::atomic<std::int64_t> number{0};      // the call that fails, counted from 1
  std::atomic<std::uint32_t> and_later{0};  // not 0: so do all calls behind it
  std::atomic<std::int32_t> error{0};
  std::atomic<EFault> fault{EFault::kError};
  std::atomic<std::int64_t> seen{0};          // calls that counted so far
  std::atomic<std::uint32_t> failed_call{0};  // the first call that failed, an ECall
};
static_assert(std::atomic<std::int64_t>::is_always_lock_free);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_FAULT_PLAN_H
