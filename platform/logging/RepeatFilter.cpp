#include "logging/RepeatFilter.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <new>
#include <utility>

namespace logging::details {

bool CRepeatFilter::IsRepeat(const CallSite& site, std::uint64_t hash, std::int64_t now_ms) const {
  return site.last_hash.load(std::memory_order_acquire) == hash &&
         now_ms < site.window_end_ms.load(std::memory_order_relaxed);
}

bool CRepeatFilter::Count(CallSite& site, std::int64_t now_ms) {
  if (now_ms >= site.window_end_ms.load(std::memory_order_relaxed) ||
      now_ms >= next_due_ms_.load(std::memory_order_relaxed)) {
    return false;
  }
  // Only a count that has begun may grow here: the first line of a count is kept with its text, for the sum.
  std::uint32_t count = site.held_back.load(std::memory_order_relaxed);
  while (count > 0) {
    if (site.held_back.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel)) {
      return true;
    }
  }
  return false;
}

bool CRepeatFilter::Admit(CallSite& site, Record& record, std::int64_t now_ms, HeldLine& before) {
  const std::uint64_t hash = std::hash<std::string_view>{}(record.text) | 1;  // never 0, the value of a fresh call site
  if (IsRepeat(site, hash, now_ms)) {
    if (site.held_back.fetch_add(1, std::memory_order_acq_rel) == 0) {
      const std::lock_guard lock(mutex_);
      Hold(site, record);
    }
    return false;
  }
  const std::lock_guard lock(mutex_);
  if (IsRepeat(site, hash, now_ms)) {  // another thread was first with an equal line
    if (site.held_back.fetch_add(1, std::memory_order_acq_rel) == 0) {
      Hold(site, record);
    }
    return false;
  }
  before = TakeOf(site);
  if (before.site != nullptr && before.text == record.text) {
    record.repeats = before.repeats;
    before = HeldLine{};
  }
  site.window_end_ms.store(now_ms + window_ms_.load(std::memory_order_relaxed), std::memory_order_relaxed);
  site.last_hash.store(hash, std::memory_order_release);
  return true;
}

void CRepeatFilter::Hold(CallSite& site, const Record& record) try {
  HeldLine line;
  line.site = &site;
  line.level = record.level;
  line.module = record.module;
  line.format = record.format;
  line.text = record.text;
  line.cut = record.cut;
  line.due_ms = site.window_end_ms.load(std::memory_order_relaxed);
  held_.push_back(std::move(line));
  SetNextDue();
} catch (const std::bad_alloc&) {
  // Nothing would ever sum these lines up, so the next equal line begins a new count.
  site.held_back.store(0, std::memory_order_release);
}

HeldLine CRepeatFilter::TakeOf(CallSite& site) {
  const auto entry = std::find_if(held_.begin(), held_.end(), [&](const HeldLine& line) { return line.site == &site; });
  if (entry == held_.end()) {
    return {};
  }
  HeldLine line = std::move(*entry);
  held_.erase(entry);
  line.repeats = site.held_back.exchange(0, std::memory_order_acq_rel);
  SetNextDue();
  return line;
}

std::vector<HeldLine> CRepeatFilter::TakeDue(std::int64_t now_ms) {
  if (now_ms < next_due_ms_.load(std::memory_order_relaxed)) {
    return {};
  }
  const std::lock_guard lock(mutex_);
  const auto first_due =
      std::partition(held_.begin(), held_.end(), [=](const HeldLine& line) { return now_ms < line.due_ms; });
  std::vector<HeldLine> due(std::make_move_iterator(first_due), std::make_move_iterator(held_.end()));
  held_.erase(first_due, held_.end());
  for (HeldLine& line : due) {
    line.repeats = line.site->held_back.exchange(0, std::memory_order_acq_rel);
  }
  SetNextDue();
  return due;
}

std::vector<HeldLine> CRepeatFilter::TakeAll() {
  return TakeDue(INT64_MAX);
}

void CRepeatFilter::SetNextDue() {
  std::int64_t next = INT64_MAX;
  for (const HeldLine& line : held_) {
    next = std::min(next, line.due_ms);
  }
  next_due_ms_.store(next, std::memory_order_relaxed);
}

}  // namespace logging::details
