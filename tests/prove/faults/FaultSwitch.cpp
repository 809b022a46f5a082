#include "FaultSwitch.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <new>
#include <stdexcept>

namespace prove {

CFaultSwitch::CFaultSwitch(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const bool has_room = descriptor >= 0 && ::ftruncate(descriptor, sizeof(FaultPlan)) == 0;
  void* memory =
      has_room ? ::mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0) : MAP_FAILED;
  if (descriptor >= 0) {
    ::close(descriptor);
  }
  if (memory == MAP_FAILED) {
    throw std::runtime_error("the plan of faults cannot be made: " + path);
  }
  plan_ = new (memory) FaultPlan;
}

CFaultSwitch::~CFaultSwitch() {
  ::munmap(plan_, sizeof(FaultPlan));
}

void CFaultSwitch::Set(const Fault& fault, std::int64_t number) {
  plan_->seen = 0;
  plan_->failed_call = 0;
  plan_->number = number;
  plan_->and_later = fault.and_later ? 1 : 0;
  plan_->error = fault.error;
  plan_->fault = fault.kind;
  plan_->calls = fault.calls;
}

void CFaultSwitch::Pause() {
  plan_->calls = 0;
}

bool CFaultSwitch::Clear() {
  Pause();
  return plan_->failed_call != 0;
}

const char* CFaultSwitch::GetFailedCall() const {
  switch (plan_->failed_call) {
    case kCallOpen:
      return "open";
    case kCallRead:
      return "read";
    case kCallWrite:
      return "write";
    case kCallSync:
      return "sync";
    case kCallResize:
      return "resize";
    case kCallRename:
      return "rename";
    case kCallRemove:
      return "remove";
    case kCallMakeFolder:
      return "make folder";
    case kCallMemory:
      return "memory for SQLite";
    default:
      return "none";
  }
}

}  // namespace prove
