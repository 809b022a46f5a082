// Says how fast a transfer must be while memory is short.
#ifndef TANSY_NET_SERVER_LEAST_RATE_H
#define TANSY_NET_SERVER_LEAST_RATE_H

#include <cstddef>
#include <cstdint>

namespace TansyNet {

// Looks at one window of time after the other, so that a good beginning does not excuse a client that then sends
// nothing. Times are SteadyMilliseconds.
class CLeastRate {
 public:
  CLeastRate(std::uint32_t bytes_per_second, std::uint32_t window_ms)
      : window_ms_(window_ms), demanded_(std::uint64_t{bytes_per_second} * window_ms / 1000) {}

  void Begin(std::int64_t now) {
    window_began_ = now;
    moved_ = 0;
  }
  void Moved(std::size_t bytes) { moved_ += bytes; }
  std::int64_t WindowEnd() const { return window_began_ + window_ms_; }
  // Returns true when a window is over in which fewer bytes were moved than the rate demands. The next window then
  // begins.
  bool FellBelow(std::int64_t now) {
    if (now < WindowEnd()) {
      return false;
    }
    const bool below = moved_ < demanded_;
    Begin(now);
    return below;
  }

 private:
  std::int64_t window_ms_;
  std::uint64_t demanded_;
  std::int64_t window_began_ = 0;
  std::uint64_t moved_ = 0;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_LEAST_RATE_H
