// What housekeeping has done and has to do, for those who look after the server.
#ifndef TANSY_HOST_HOUSEKEEPING_COUNTS_H
#define TANSY_HOST_HOUSEKEEPING_COUNTS_H

#include <atomic>
#include <cstdint>

namespace Tansy::Host {

// All of them are of this process. One thread writes, any thread reads.
struct HousekeepingCounts {
  // Stored bytes of one kind: how many pieces, and how many bytes together.
  struct Stored {
    std::atomic<std::uint64_t> pieces{0};
    std::atomic<std::uint64_t> bytes{0};
  };

  std::atomic<std::uint64_t> rounds{0};  // that went to their end
  Stored freed_released;                 // had a row, which was removed or replaced
  Stored freed_orphaned;                 // never got a row
  // Waiting for their time, as of the last look at them; released ones are counted up to kMostCounted of a kind.
  std::atomic<std::uint64_t> waiting_removed{0};
  std::atomic<std::uint64_t> waiting_replaced{0};
  std::atomic<std::uint64_t> waiting_new{0};

  static constexpr int kMostCounted = 100'000;

  static HousekeepingCounts& OfProcess() {
    static HousekeepingCounts counts;
    return counts;
  }
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_HOUSEKEEPING_COUNTS_H
