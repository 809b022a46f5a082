#ifndef TANSY_BASE_TIME_UTIL_H
#define TANSY_BASE_TIME_UTIL_H

#include <cstdint>
#include <ctime>
#include <string>

namespace TansyBase {

// Times in UTC. Threads: all may be called from any thread.
class TimeUtil {
 public:
  // Gives the current time in seconds since 1970, from the clock below.
  static std::time_t Now();

  // Gives the seconds of a clock that nobody sets. It measures how long something has taken, even when the time of day
  // is changed meanwhile. Its zero point means nothing.
  static std::int64_t Uptime();

  // Replaces the clock that Now reads (tests); null restores the system's.
  using ClockFunction = std::time_t (*)();
  static void SetClock(ClockFunction clock);
  // Does the same for the clock that Uptime reads.
  using UptimeFunction = std::int64_t (*)();
  static void SetUptimeClock(UptimeFunction clock);

  // Writes a time like "2026-11-03 08:05:09".
  static std::string TimeT2StrUTCDatetime(std::time_t time);
  // Writes a time like "2026-11-03 08:05:09.000", the form of timestamp columns.
  static std::string TimeT2StrUTCTimeStamp(std::time_t time);
  // Reads either form. Returns -1 when the text has neither.
  static std::time_t StrUTCDatetime2TimeT(const std::string& text);
};

}  // namespace TansyBase

#endif  // TANSY_BASE_TIME_UTIL_H
