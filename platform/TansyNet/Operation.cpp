#include "TansyNet/Operation.h"

#include <algorithm>

namespace TansyNet {
namespace details {
namespace {

// Operations are made before main and while libraries are loaded, in any order.
std::atomic<COperation*>& LastOperation() noexcept {
  static std::atomic<COperation*> last{nullptr};
  return last;
}

std::size_t NextThread() noexcept {
  static std::atomic<std::size_t> next{0};
  return next.fetch_add(1, std::memory_order_relaxed);
}

template <typename Bounds, typename Value>
std::size_t PlaceOf(const Bounds& bounds, Value value) noexcept {
  return static_cast<std::size_t>(std::lower_bound(bounds.begin(), bounds.end(), value) - bounds.begin());
}

std::size_t PlaceOfStatus(int status) noexcept {
  const auto* const found = std::lower_bound(kCountedStatuses.begin(), kCountedStatuses.end(), status);
  return found != kCountedStatuses.end() && *found == status
             ? static_cast<std::size_t>(found - kCountedStatuses.begin())
             : 0;
}

void Add(std::atomic<std::uint64_t>& number, std::uint64_t value) noexcept {
  number.fetch_add(value, std::memory_order_relaxed);
}

template <typename Sums, typename Numbers>
void AddAll(Sums& sums, const Numbers& numbers) noexcept {
  for (std::size_t i = 0; i < sums.size(); ++i) {
    sums[i] += numbers[i].load(std::memory_order_relaxed);
  }
}

}  // namespace
}  // namespace details

static_assert(std::is_sorted(kCountedStatuses.begin(), kCountedStatuses.end()));
static_assert(std::is_sorted(kTimeBounds.begin(), kTimeBounds.end()));
static_assert(std::is_sorted(kSizeBounds.begin(), kSizeBounds.end()));

COperation::COperation(const char* service, const char* name) noexcept : service_(service), name_(name) {
  std::atomic<COperation*>& last = details::LastOperation();
  next_ = last.load(std::memory_order_relaxed);
  while (!last.compare_exchange_weak(next_, this, std::memory_order_release, std::memory_order_relaxed)) {
  }
}

void COperation::Count(int status, std::int64_t nanoseconds, std::uint64_t bytes_in, std::uint64_t bytes_out) noexcept {
  thread_local const std::size_t thread = details::NextThread();
  Shard& shard = shards_[thread % kShards];
  details::Add(shard.statuses[details::PlaceOfStatus(status)], 1);
  details::Add(shard.times[details::PlaceOf(kTimeBounds, nanoseconds)], 1);
  details::Add(shard.sizes[details::PlaceOf(kSizeBounds, bytes_in + bytes_out)], 1);
  details::Add(shard.nanoseconds, static_cast<std::uint64_t>(std::max<std::int64_t>(nanoseconds, 0)));
  details::Add(shard.bytes_in, bytes_in);
  details::Add(shard.bytes_out, bytes_out);
}

COperation::Counts COperation::Read() const noexcept {
  Counts sums;
  for (const Shard& shard : shards_) {
    details::AddAll(sums.statuses, shard.statuses);
    details::AddAll(sums.times, shard.times);
    details::AddAll(sums.sizes, shard.sizes);
    sums.nanoseconds += shard.nanoseconds.load(std::memory_order_relaxed);
    sums.bytes_in += shard.bytes_in.load(std::memory_order_relaxed);
    sums.bytes_out += shard.bytes_out.load(std::memory_order_relaxed);
  }
  return sums;
}

std::vector<const COperation*> Operations() {
  std::vector<const COperation*> all;
  for (const COperation* each = details::LastOperation().load(std::memory_order_acquire); each != nullptr;
       each = each->next_) {
    all.push_back(each);
  }
  return all;
}

}  // namespace TansyNet
