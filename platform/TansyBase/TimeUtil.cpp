#include "TansyBase/TimeUtil.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string_view>

namespace TansyBase {
namespace {

std::atomic<TimeUtil::ClockFunction> replaced_clock{nullptr};
std::atomic<TimeUtil::UptimeFunction> replaced_uptime{nullptr};

constexpr std::time_t kSecondsPerDay = 86400;
// The limits are 0000-01-01 and 9999-12-31, because a year has four digits.
constexpr std::time_t kFirstTime = -62167219200;
constexpr std::time_t kLastTime = 253402300799;

// Reads the number in `text`, which must consist of decimal digits only.
std::optional<int> Digits(std::string_view text) {
  int value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') {
      return std::nullopt;
    }
    value = value * 10 + (c - '0');
  }
  return value;
}

// Returns true for the fraction that timestamp columns may show: "", ".0", ".000", ".123456".
bool IsFraction(std::string_view text) {
  return text.empty() || (text.size() >= 2 && text.size() <= 10 && text[0] == '.' && Digits(text.substr(1)));
}

bool HasSeparators(std::string_view text) {
  return text[4] == '-' && text[7] == '-' && text[10] == ' ' && text[13] == ':' && text[16] == ':';
}

}  // namespace

std::time_t TimeUtil::Now() {
  const ClockFunction clock = replaced_clock.load();
  return clock != nullptr ? clock() : std::time(nullptr);
}

std::int64_t TimeUtil::Uptime() {
  const UptimeFunction clock = replaced_uptime.load();
  const auto since_zero = std::chrono::steady_clock::now().time_since_epoch();
  return clock != nullptr ? clock() : std::chrono::duration_cast<std::chrono::seconds>(since_zero).count();
}

void TimeUtil::SetUptimeClock(UptimeFunction clock) {
  replaced_uptime.store(clock);
}

void TimeUtil::SetClock(ClockFunction clock) {
  replaced_clock.store(clock);
}

std::string TimeUtil::TimeT2StrUTCDatetime(std::time_t time) {
  if (time < kFirstTime || time > kLastTime) {
    return {};
  }
  using std::chrono::floor;
  const std::chrono::sys_seconds moment{std::chrono::seconds(time)};
  const auto day = floor<std::chrono::days>(moment);
  const std::chrono::year_month_day date(day);
  const auto second = static_cast<int>((moment - day).count());
  char text[32];
  static_cast<void>(std::snprintf(text, sizeof text, "%04d-%02u-%02u %02d:%02d:%02d", static_cast<int>(date.year()),
                                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), second / 3600,
                                  second / 60 % 60, second % 60));
  return text;
}

std::string TimeUtil::TimeT2StrUTCTimeStamp(std::time_t time) {
  std::string text = TimeT2StrUTCDatetime(time);
  return text.empty() ? text : text + ".000";
}

std::time_t TimeUtil::StrUTCDatetime2TimeT(const std::string& text) {
  constexpr std::size_t kDatetimeLength = 19;
  const std::string_view view = text;
  if (view.size() < kDatetimeLength || !HasSeparators(view) || !IsFraction(view.substr(kDatetimeLength))) {
    return -1;
  }
  const auto year = Digits(view.substr(0, 4));
  const auto month = Digits(view.substr(5, 2));
  const auto day = Digits(view.substr(8, 2));
  const auto hour = Digits(view.substr(11, 2));
  const auto minute = Digits(view.substr(14, 2));
  const auto second = Digits(view.substr(17, 2));
  if (!year || !month || !day || !hour || !minute || !second || *hour > 23 || *minute > 59 || *second > 59) {
    return -1;
  }
  const std::chrono::year_month_day date{std::chrono::year(*year), std::chrono::month(static_cast<unsigned>(*month)),
                                         std::chrono::day(static_cast<unsigned>(*day))};
  if (!date.ok()) {
    return -1;
  }
  const std::time_t days = std::chrono::sys_days(date).time_since_epoch().count();
  return days * kSecondsPerDay + std::time_t{*hour} * 3600 + std::time_t{*minute} * 60 + *second;
}

}  // namespace TansyBase
