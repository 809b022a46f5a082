#include "StorageServer/SignatureDate.h"

#include <atomic>
#include <charconv>
#include <ctime>

#include "StorageServer/ServerComm.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::int64_t kSecondsPerMinute = 60;

std::atomic<std::uint32_t> date_window{0};

}  // namespace
}  // namespace details

void SetDateWindow(std::uint32_t minutes) {
  details::date_window = minutes;
}

std::uint32_t DateWindow() {
  return details::date_window;
}

bool IsDateInWindow(std::string_view date) {
  const std::int64_t window = DateWindow() * details::kSecondsPerMinute;
  if (window == 0) {
    return true;
  }
  const std::time_t signed_at = ParseHttpDate(date);
  const std::time_t now = TansyBase::TimeUtil::Now();
  return signed_at >= 0 && signed_at >= now - window && signed_at <= now + window;
}

bool IsNotExpired(std::string_view expires) {
  std::int64_t last = -1;
  const char* const end = expires.data() + expires.size();
  const auto [rest, error] = std::from_chars(expires.data(), end, last);
  return error == std::errc() && rest == end && last >= 0 && TansyBase::TimeUtil::Now() <= last;
}

}  // namespace Tansy::CloudStorage
