// Holds equal lines of one call site back for a while. Internal to the logging library.
#ifndef TANSY_LOGGING_REPEAT_FILTER_H
#define TANSY_LOGGING_REPEAT_FILTER_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "logging/Record.h"

namespace logging::details {

// A line that stands for those that were held back.
struct HeldLine {
  CallSite* site = nullptr;
  int level = 0;
  std::string module;
  std::string_view format;  // a literal, which outlives every line
  std::string text;
  bool cut = false;
  std::int64_t due_ms = 0;
  std::uint32_t repeats = 0;
};

// Decides which equal lines are held back. A flood of one line over and over costs two atomic reads and one addition
// per line and touches no lock; the lock is taken when a call site's line changes or its window ends. Counts are exact
// as long as a call site's lines are equal; when they change at that very moment, a held-back line may be counted with
// its successor.
//
// Threads: any. Nothing is written while the lock is held.
class CRepeatFilter {
 public:
  void SetWindow(std::uint32_t milliseconds) { window_ms_.store(milliseconds, std::memory_order_relaxed); }
  bool IsOn() const { return window_ms_.load(std::memory_order_relaxed) != 0; }

  // Decides about one line. When the result is false, the line is held back. When it is true, the line must be written,
  // after `before` (when that has a site), and `record.repeats` is set.
  bool Admit(CallSite& site, Record& record, std::int64_t now_ms, HeldLine& before);

  // Counts one more line that is equal to the site's last one. Returns false and counts nothing when the line must go
  // through Admit, or when a sum is due.
  bool Count(CallSite& site, std::int64_t now_ms);

  // Takes out the lines whose window ended before `now_ms`.
  std::vector<HeldLine> TakeDue(std::int64_t now_ms);
  std::vector<HeldLine> TakeAll();

 private:
  bool IsRepeat(const CallSite& site, std::uint64_t hash, std::int64_t now_ms) const;
  void Hold(CallSite& site, const Record& record);
  HeldLine TakeOf(CallSite& site);
  void SetNextDue();

  std::atomic<std::uint32_t> window_ms_{0};
  std::atomic<std::int64_t> next_due_ms_{INT64_MAX};
  std::mutex mutex_;
  std::vector<HeldLine> held_;  // guarded by mutex_; at most one entry per call site
};

}  // namespace logging::details

#endif  // TANSY_LOGGING_REPEAT_FILTER_H
