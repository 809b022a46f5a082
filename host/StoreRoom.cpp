#include "StoreRoom.h"

#include <algorithm>
#include <limits>

#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint64_t kMostReserve = std::uint64_t{96} * 1024 * 1024;
constexpr std::uint64_t kReservedPart = 8;

}  // namespace
}  // namespace details

// Others fill the disk too, so the system is asked once a second, and before a refusal. It does not count yet what is
// being written.
void CStoreRoom::Look() {
  looked_at_ = TansyBase::TimeUtil::Uptime();
  std::uint64_t total = 0;
  std::uint64_t available = 0;
  if (folder_.GetRoom(total, available) != 0 || total == 0) {  // some file systems give zeros
    reserve_ = 0;
    spare_ = std::numeric_limits<std::uint64_t>::max();
    return;
  }
  reserve_ = std::min(details::kMostReserve, total / details::kReservedPart);
  spare_ = available - std::min(available, reserve_ + under_way_);
}

bool CStoreRoom::Begin(std::uint64_t bytes) {
  const std::lock_guard lock(mutex_);
  if (spare_ < bytes || looked_at_ != TansyBase::TimeUtil::Uptime()) {
    Look();
  }
  if (spare_ < bytes) {
    return false;
  }
  spare_ -= bytes;
  under_way_ += bytes;
  return true;
}

void CStoreRoom::End(std::uint64_t bytes) {
  const std::lock_guard lock(mutex_);
  under_way_ -= bytes;
}

bool CStoreRoom::IsShort() {
  const std::lock_guard lock(mutex_);
  Look();
  return spare_ < reserve_;
}

}  // namespace Tansy::Host
