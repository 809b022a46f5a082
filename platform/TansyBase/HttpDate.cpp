#include "TansyBase/HttpDate.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace TansyBase {
namespace {

constexpr std::array<const char*, 7> kWeekdays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr std::size_t kMaxDateBytes = 40;

// The limits of the calendar arithmetic below, as days since 1970.
constexpr std::chrono::sys_days kFirstDay = std::chrono::year::min() / std::chrono::January / 1;
constexpr std::chrono::sys_days kLastDay = std::chrono::year::max() / std::chrono::December / 31;

// The fields of a date as they were written.
struct Fields {
  int year = 0;
  char month[4] = {};
  unsigned int day = 0;
  unsigned int hour = 0;
  unsigned int minute = 0;
  unsigned int second = 0;
};

bool Split(std::string_view text, Fields& fields) {
  if (text.empty() || text.size() > kMaxDateBytes) {
    return false;
  }
  const std::string date(text);
  char weekday[4] = {};
  int length = 0;
  const int found = std::sscanf(date.c_str(), "%3[A-Za-z],%2u %3[A-Za-z] %4d %2u:%2u:%2u GMT%n", weekday, &fields.day,
                                fields.month, &fields.year, &fields.hour, &fields.minute, &fields.second, &length);
  return found == 7 && static_cast<std::size_t>(length) == text.size();
}

// The same as "%0*d", without looking at a format for each answer that has a date.
void AppendNumber(std::string& text, int number, std::size_t width) {
  const std::string digits = std::to_string(std::abs(number));
  if (number < 0) {
    text += '-';
    --width;
  }
  text.append(width - std::min(width, digits.size()), '0').append(digits);
}

unsigned int MonthNumber(const char* name) {
  const auto* const found =
      std::find_if(kMonths.begin(), kMonths.end(), [name](const char* month) { return std::strcmp(month, name) == 0; });
  return static_cast<unsigned int>(found - kMonths.begin()) + 1;
}

}  // namespace

std::string HttpDate::Format(std::time_t time, char padding) {
  const std::chrono::sys_seconds instant{std::chrono::seconds(time)};
  if (instant < kFirstDay || instant >= kLastDay + std::chrono::days(1)) {
    return {};
  }
  const auto day = std::chrono::floor<std::chrono::days>(instant);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss<std::chrono::seconds> clock(instant - day);
  const unsigned int day_of_month = static_cast<unsigned int>(date.day());
  std::string text;
  text.reserve(kMaxDateBytes);
  text.append(kWeekdays.at(std::chrono::weekday(day).c_encoding())).append(", ");
  text.append(day_of_month < 10 ? 1 : 0, padding).append(std::to_string(day_of_month)).append(" ");
  text.append(kMonths.at(static_cast<unsigned int>(date.month()) - 1)).append(" ");
  AppendNumber(text, static_cast<int>(date.year()), 4);
  text += ' ';
  AppendNumber(text, static_cast<int>(clock.hours().count()), 2);
  text += ':';
  AppendNumber(text, static_cast<int>(clock.minutes().count()), 2);
  text += ':';
  AppendNumber(text, static_cast<int>(clock.seconds().count()), 2);
  return text + " GMT";
}

std::time_t HttpDate::Parse(std::string_view text) {
  Fields fields;
  if (!Split(text, fields)) {
    return -1;
  }
  const std::chrono::year_month_day date{std::chrono::year{fields.year}, std::chrono::month{MonthNumber(fields.month)},
                                         std::chrono::day{fields.day}};
  // The second 60 is a leap second.
  if (!date.ok() || fields.hour > 23 || fields.minute > 59 || fields.second > 60) {
    return -1;
  }
  const auto time = std::chrono::sys_days(date) + std::chrono::hours(fields.hour) +
                    std::chrono::minutes(fields.minute) + std::chrono::seconds(fields.second);
  const std::int64_t seconds = time.time_since_epoch().count();
  return seconds >= 0 ? static_cast<std::time_t>(seconds) : -1;
}

}  // namespace TansyBase
