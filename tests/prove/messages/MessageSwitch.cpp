#include "MessageSwitch.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

namespace prove {

CMessageSwitch::CMessageSwitch(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  void* memory = MAP_FAILED;
  if (file >= 0 && ::ftruncate(file, sizeof(MessagePlan)) == 0) {
    memory = ::mmap(nullptr, sizeof(MessagePlan), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  }
  ::close(file);
  if (memory == MAP_FAILED) {
    throw std::runtime_error("no plan can be made: " + path);
  }
  plan_ = static_cast<MessagePlan*>(memory);
}

CMessageSwitch::~CMessageSwitch() {
  ::munmap(plan_, sizeof(MessagePlan));
}

void CMessageSwitch::Set(EMessage what, std::int64_t number) {
  plan_->what = what;
  plan_->left = number;
}

bool CMessageSwitch::Clear() {
  return plan_->left.exchange(0) <= 0;
}

}  // namespace prove
