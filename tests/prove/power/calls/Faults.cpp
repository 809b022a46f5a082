#include "calls/Faults.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

namespace prove {
namespace {

constexpr unsigned kSlowMicroseconds = 50000;

// Memory is asked for before anything else is ready, so this is set by hand, and nothing is counted until then.
FaultPlan* g_plan = nullptr;

__attribute__((constructor)) void ReadPlan() {
  const char* path = std::getenv("TANSY_CALLS_FAULTS");
  const int descriptor = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
  if (descriptor < 0) {
    return;
  }
  void* memory = ::mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  ::close(descriptor);
  g_plan = memory == MAP_FAILED ? nullptr : static_cast<FaultPlan*>(memory);
}

}  // namespace

Verdict Count(ECall call) {
  FaultPlan* const plan = g_plan;
  if (plan == nullptr || (plan->calls & call) == 0) {
    return {};
  }
  const std::int64_t number = ++plan->seen;
  if (number != plan->number && (number < plan->number || plan->and_later == 0)) {
    return {};
  }
  std::uint32_t none = 0;
  plan->failed_call.compare_exchange_strong(none, call);
  switch (plan->fault) {
    case EFault::kShort:
      return {0, true};
    case EFault::kSlow:
      ::usleep(kSlowMicroseconds);
      return {};
    case EFault::kUntold:
      return {plan->error, false, false};
    case EFault::kError:
      break;
  }
  return {plan->error, false};
}

}  // namespace prove
