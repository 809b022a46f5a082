// A clock that stands still until a test moves it.
#ifndef TANSY_TESTS_FAKES_MANUAL_CLOCK_H
#define TANSY_TESTS_FAKES_MANUAL_CLOCK_H

#include <atomic>
#include <ctime>

#include "TansyBase/TimeUtil.h"

namespace Tansy::Tests {

// Replaces the clock of TimeUtil as long as it lives; one at a time. Any thread may move or read it.
class CManualClock {
 public:
  // 2026-11-03 08:05:09 UTC, a day with one digit.
  static constexpr std::time_t kDefaultTime = 1793693109;

  explicit CManualClock(std::time_t now = kDefaultTime) {
    now_ = now;
    TansyBase::TimeUtil::SetClock(&Read);
  }
  ~CManualClock() { TansyBase::TimeUtil::SetClock(nullptr); }
  CManualClock(const CManualClock&) = delete;
  CManualClock& operator=(const CManualClock&) = delete;

  void Set(std::time_t now) { now_ = now; }
  void Advance(std::time_t seconds) { now_ += seconds; }
  std::time_t Now() const { return now_; }

 private:
  static std::time_t Read() { return now_; }

  static inline std::atomic<std::time_t> now_{kDefaultTime};
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_MANUAL_CLOCK_H
