// Clocks that stand still until a test moves them: the time of day, and the one that nobody sets.
#ifndef TANSY_TESTS_FAKES_MANUAL_CLOCK_H
#define TANSY_TESTS_FAKES_MANUAL_CLOCK_H

#include <atomic>
#include <cstdint>
#include <ctime>

#include "TansyBase/TimeUtil.h"

namespace Tansy::Tests {

// Replaces the clocks of TimeUtil as long as it lives; one at a time. Any thread may move or read them.
class CManualClock {
 public:
  // 2026-11-03 08:05:09 UTC, a day with one digit.
  static constexpr std::time_t kDefaultTime = 1793693109;

  explicit CManualClock(std::time_t now = kDefaultTime) {
    now_ = now;
    TansyBase::TimeUtil::SetClock(&Read);
    TansyBase::TimeUtil::SetUptimeClock(&ReadUptime);
  }
  ~CManualClock() {
    TansyBase::TimeUtil::SetClock(nullptr);
    TansyBase::TimeUtil::SetUptimeClock(nullptr);
  }
  CManualClock(const CManualClock&) = delete;
  CManualClock& operator=(const CManualClock&) = delete;

  // Sets the time of day as a person would; no time passes.
  void Set(std::time_t now) { now_ = now; }
  // Lets time pass on both clocks.
  void Advance(std::time_t seconds) {
    now_ += seconds;
    uptime_ += seconds;
  }
  std::time_t Now() const { return now_; }

 private:
  static std::time_t Read() { return now_; }
  static std::int64_t ReadUptime() { return uptime_; }

  static inline std::atomic<std::time_t> now_{kDefaultTime};
  static inline std::atomic<std::int64_t> uptime_{0};
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_MANUAL_CLOCK_H
