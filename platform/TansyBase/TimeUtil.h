#ifndef TANSY_BASE_TIME_UTIL_H
#define TANSY_BASE_TIME_UTIL_H

#include <cstdint>
#include <ctime>
#include <string>

namespace TansyBase {

// Times in UTC. Threads: all may be called from any thread.
class TimeUtil {
 public:
  // The current time in seconds since 1970, from the clock below.
  static std::time_t Now();

  // Seconds of a clock that nobody sets: it measures how long something has taken, whatever becomes of the time of day.
  // Its zero means nothing.
  static std::int64_t Uptime();

  // Replaces the clock that Now reads (tests); null restores the system's.
  using ClockFunction = std::time_t (*)();
  static void SetClock(ClockFunction clock);
  // The same for the clock that Uptime reads.
  using UptimeFunction = std::int64_t (*)();
  static void SetUptimeClock(UptimeFunction clock);

  // "2026-11-03 08:05:09".
  static std::string TimeT2StrUTCDatetime(std::time_t time);
  // "2026-11-03 08:05:09.000", the form of timestamp columns.
  static std::string TimeT2StrUTCTimeStamp(std::time_t time);
  // Reads either form; -1 when the text is neither.
  static std::time_t StrUTCDatetime2TimeT(const std::string& text);
};

}  // namespace TansyBase

#endif  // TANSY_BASE_TIME_UTIL_H
