#include "ServiceWatchdog.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "HostLog.h"

namespace Tansy::Host {
namespace details {
namespace {

// A look and the pause before it take half of the manager's period together at the most.
constexpr int kStepsPerPeriod = 4;
constexpr std::chrono::milliseconds kShortestStep{1};

}  // namespace
}  // namespace details

CServiceWatchdog::CServiceWatchdog(std::chrono::microseconds period, Look look, std::function<void()> tell)
    : CSingleBaseThread("tansyd-watchdog"),
      step_(std::max(std::chrono::duration_cast<std::chrono::milliseconds>(period / details::kStepsPerPeriod),
                     details::kShortestStep)),
      look_(std::move(look)),
      tell_(std::move(tell)) {}

CServiceWatchdog::~CServiceWatchdog() {
  Stop();
}

void CServiceWatchdog::Begin() {
  Start(static_cast<std::uint32_t>(step_.count()));
}

void CServiceWatchdog::OnTimer() {
  const bool is_well = look_(step_);
  if (is_well) {
    tell_();
  } else if (was_well_) {
    HOST_LOG(logging::kError,
             "[%s]clients have had no answer for %lld ms: the service manager is not told that all is "
             "well.[%s(%d)]",
             static_cast<long long>(step_.count()));
  }
  was_well_ = is_well;
}

}  // namespace Tansy::Host
