#include "Common/HttpDate.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "TansyBase/StringUtil.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

using TansyBase::StringUtil;

namespace details {
namespace {

constexpr std::array<const char*, 7> kWeekdays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

constexpr std::size_t kMaxDateBytes = 40;

// Years that the calendar arithmetic below holds, as days since 1970.
constexpr std::chrono::sys_days kFirstDay = std::chrono::year::min() / std::chrono::January / 1;
constexpr std::chrono::sys_days kLastDay = std::chrono::year::max() / std::chrono::December / 31;

}  // namespace
}  // namespace details

std::string FormatHttpDate() {
  using std::chrono::sys_seconds;
  const sys_seconds now{std::chrono::seconds(TansyBase::TimeUtil::Now())};
  if (now < details::kFirstDay || now >= details::kLastDay + std::chrono::days(1)) {
    return {};
  }
  const auto day = std::chrono::floor<std::chrono::days>(now);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss<std::chrono::seconds> time(now - day);
  const unsigned int weekday = std::chrono::weekday(day).c_encoding();
  const unsigned int month = static_cast<unsigned int>(date.month()) - 1;
  if (weekday >= details::kWeekdays.size() || month >= details::kMonths.size()) {
    return {};
  }
  const std::string year_and_time = StringUtil::str_fmt(
      "%d %02d:%02d:%02d GMT", static_cast<int>(date.year()), static_cast<int>(time.hours().count()),
      static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
  return StringUtil::str_fmt("%s, %2d %s %s", details::kWeekdays[weekday],
                             static_cast<int>(static_cast<unsigned int>(date.day())), details::kMonths[month],
                             year_and_time.c_str());
}

std::time_t ParseHttpDate(std::string_view text) {
  // "Tue, 03 Nov 2026 08:05:09 GMT", the day of the month in up to two places.
  const std::string date(text.substr(0, details::kMaxDateBytes));
  char weekday[4] = {};
  char month_name[4] = {};
  unsigned int day = 0;
  int year = 0;
  unsigned int hour = 0;
  unsigned int minute = 0;
  unsigned int second = 0;
  int length = 0;
  if (text.size() > details::kMaxDateBytes ||
      std::sscanf(date.c_str(), "%3[A-Za-z],%2u %3[A-Za-z] %4d %2u:%2u:%2u GMT%n", weekday, &day, month_name, &year,
                  &hour, &minute, &second, &length) != 7 ||
      static_cast<std::size_t>(length) != text.size()) {
    return -1;
  }
  const auto month = std::find_if(details::kMonths.begin(), details::kMonths.end(),
                                  [&](const char* name) { return std::strcmp(name, month_name) == 0; });
  const auto month_number = static_cast<unsigned int>(month - details::kMonths.begin()) + 1;
  const std::chrono::year_month_day ymd{std::chrono::year{year}, std::chrono::month{month_number},
                                        std::chrono::day{day}};
  // 60 is a leap second.
  if (!ymd.ok() || hour > 23 || minute > 59 || second > 60) {
    return -1;
  }
  const auto time = std::chrono::sys_days(ymd) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
                    std::chrono::seconds(second);
  const std::int64_t seconds = time.time_since_epoch().count();
  return seconds >= 0 ? static_cast<std::time_t>(seconds) : -1;
}

}  // namespace Tansy::CloudStorage
