#include "RateLimit.h"

#include <algorithm>
#include <memory>
#include <thread>

#include "TansyNet/HttpClient.h"

namespace Tansy::Cli {

CRateLimit::Clock::time_point CRateLimit::Take(std::size_t bytes, Clock::time_point now) {
  const std::chrono::duration<double> time(static_cast<double>(bytes) / static_cast<double>(bytes_per_second_));
  const std::lock_guard lock(mutex_);
  const Clock::time_point begin = std::max(free_at_, now);
  free_at_ = begin + std::chrono::duration_cast<Clock::duration>(time);
  return begin;
}

void LimitRate(std::uint64_t bytes_per_second) {
  const auto limit = std::make_shared<CRateLimit>(bytes_per_second);
  TansyNet::HttpClient::SetPace(
      [limit](std::size_t bytes) { std::this_thread::sleep_until(limit->Take(bytes, CRateLimit::Clock::now())); });
}

}  // namespace Tansy::Cli
