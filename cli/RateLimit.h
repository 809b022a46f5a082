#ifndef TANSY_CLI_RATE_LIMIT_H
#define TANSY_CLI_RATE_LIMIT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace Tansy::Cli {

// Says when bytes may pass so that they stay within a number per second, all threads together. Threads: any.
class CRateLimit {
 public:
  using Clock = std::chrono::steady_clock;

  explicit CRateLimit(std::uint64_t bytes_per_second) : bytes_per_second_(bytes_per_second) {}

  // Counts bytes that are about to pass at `now`, and gives the time at which they may. An idle time is not made up for
  // later.
  Clock::time_point Take(std::size_t bytes, Clock::time_point now);

 private:
  const std::uint64_t bytes_per_second_;
  std::mutex mutex_;
  Clock::time_point free_at_;  // guarded by mutex_
};

// From now on everything that this process sends and receives stays within so many bytes per second. It is called at
// most once, before anything is sent.
void LimitRate(std::uint64_t bytes_per_second);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_RATE_LIMIT_H
