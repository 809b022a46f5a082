// What requests ask for, and how many of them there were.
#ifndef TANSY_NET_OPERATION_H
#define TANSY_NET_OPERATION_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace TansyNet {

// The upper bounds of the histograms, in nanoseconds and bytes; what is above the last one counts in one more place.
inline constexpr std::array<std::int64_t, 14> kTimeBounds = {
    500'000,     1'000'000,   2'500'000,     5'000'000,     10'000'000,    25'000'000,     50'000'000,
    100'000'000, 250'000'000, 1'000'000'000, 2'500'000'000, 5'000'000'000, 10'000'000'000, 60'000'000'000};
inline constexpr std::array<std::uint64_t, 6> kSizeBounds = {4'096,      65'536,      1'048'576,
                                                             16'777'216, 268'435'456, 4'294'967'296};

// The statuses that are counted one by one; all others count as 0. 499 stands for a client that left before its answer.
inline constexpr std::array<int, 24> kCountedStatuses = {0,   200, 201, 204, 206, 301, 304, 307, 400, 403, 404, 405,
                                                         408, 409, 411, 412, 413, 416, 421, 431, 499, 500, 501, 503};
inline constexpr int kClientLeft = 499;

// One kind of request. It is counted from many threads without a lock. Objects live as long as the process: they are
// static, and Operations() lists them in no order.
class COperation {
 public:
  struct Counts {
    std::array<std::uint64_t, kCountedStatuses.size()> statuses{};
    std::array<std::uint64_t, kTimeBounds.size() + 1> times{};
    std::array<std::uint64_t, kSizeBounds.size() + 1> sizes{};
    std::uint64_t nanoseconds = 0;
    std::uint64_t bytes_in = 0;
    std::uint64_t bytes_out = 0;
  };

  // Both texts live as long as the process. `service` names the protocol, `name` the kind of request within it.
  COperation(const char* service, const char* name) noexcept;
  COperation(const COperation&) = delete;
  COperation& operator=(const COperation&) = delete;

  const char* Service() const { return service_; }
  const char* Name() const { return name_; }

  // Counts a request that has ended. `nanoseconds` is the time from the end of its head to the last byte of its answer,
  // `bytes_in` and `bytes_out` are its bodies.
  void Count(int status, std::int64_t nanoseconds, std::uint64_t bytes_in, std::uint64_t bytes_out) noexcept;
  // Threads that count meanwhile may be in one of the figures and not yet in another.
  Counts Read() const noexcept;

 private:
  friend std::vector<const COperation*> Operations();

  using Number = std::atomic<std::uint64_t>;
  // Each thread counts in one of these, so that processors do not wait for each other's numbers.
  struct alignas(64) Shard {
    std::array<Number, kCountedStatuses.size()> statuses{};
    std::array<Number, kTimeBounds.size() + 1> times{};
    std::array<Number, kSizeBounds.size() + 1> sizes{};
    Number nanoseconds{0};
    Number bytes_in{0};
    Number bytes_out{0};
  };
  static constexpr std::size_t kShards = 8;

  const char* const service_;
  const char* const name_;
  COperation* next_ = nullptr;
  std::array<Shard, kShards> shards_;
};

// Gives all operations of the process.
std::vector<const COperation*> Operations();

}  // namespace TansyNet

#endif  // TANSY_NET_OPERATION_H
