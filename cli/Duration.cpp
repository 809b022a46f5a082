#include "Duration.h"

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "Failure.h"
#include "Output.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::int64_t kLongestValidity = std::int64_t{100} * 366 * 86400;

// Gives the first second of a day; -1 for any other text, and for days that no calendar has.
std::int64_t BeginOfDay(const std::string& text) {
  const bool is_day = text.size() == 10 && text.find_first_not_of("0123456789-") == std::string::npos &&
                      text[4] == '-' && text[7] == '-' && text.find('-', 8) == std::string::npos;
  if (!is_day) {
    return -1;
  }
  const auto number = [&text](std::size_t at, std::size_t digits) {
    return std::atoi(text.substr(at, digits).c_str());
  };
  const std::chrono::year_month_day day{std::chrono::year(number(0, 4)),
                                        std::chrono::month(static_cast<unsigned>(number(5, 2))),
                                        std::chrono::day(static_cast<unsigned>(number(8, 2)))};
  return day.ok() ? std::int64_t{std::chrono::sys_days(day).time_since_epoch().count()} * 86400 : -1;
}

}  // namespace
}  // namespace details

std::int64_t ParseDuration(const std::string& text) {
  static constexpr std::pair<char, std::int64_t> kUnits[] = {
      {'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 604800}};
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, number);
  for (const auto& [unit, seconds] : kUnits) {
    if (error == std::errc{} && end - position == 1 && *position == unit && number > 0 &&
        number <= details::kLongestValidity / seconds) {
      return number * seconds;
    }
  }
  throw CFailure(kExitUsage, "--expires \"" + Printable(text) + "\" is no duration",
                 "give a number with s, m, h, d or w, such as 90s, 15m, 2h, 7d or 4w");
}

std::int64_t ParseEnd(const std::string& text, std::int64_t now) {
  if (text.find('-') == std::string::npos) {
    return now + ParseDuration(text);
  }
  const std::int64_t end = details::BeginOfDay(text);
  if (end <= now) {
    throw CFailure(kExitUsage, "--expires \"" + Printable(text) + "\" is no day that is still to come",
                   "give one such as 2027-01-31, or a time such as 15m, 2h, 7d or 4w");
  }
  return end;
}

}  // namespace Tansy::Cli
