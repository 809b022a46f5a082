#include "db_layer/WriteCounts.h"

#include <atomic>

namespace db_layer {
namespace details {
namespace {

std::atomic<std::uint64_t> counted_groups{0};
std::atomic<std::uint64_t> counted_writes{0};
std::atomic<std::uint64_t> counted_nanoseconds{0};

}  // namespace

void CountGroup(std::uint64_t writes, std::uint64_t nanoseconds) noexcept {
  counted_groups.fetch_add(1, std::memory_order_relaxed);
  counted_writes.fetch_add(writes, std::memory_order_relaxed);
  counted_nanoseconds.fetch_add(nanoseconds, std::memory_order_relaxed);
}

}  // namespace details

WriteCounts CountedWrites() noexcept {
  return {details::counted_groups.load(std::memory_order_relaxed),
          details::counted_writes.load(std::memory_order_relaxed),
          details::counted_nanoseconds.load(std::memory_order_relaxed)};
}

}  // namespace db_layer
