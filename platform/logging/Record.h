// One line of the log, and the state that a call site keeps about its lines.
#ifndef TANSY_LOGGING_RECORD_H
#define TANSY_LOGGING_RECORD_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace logging {

// A longer rendered line is cut between two characters and ends with kCutMark.
inline constexpr std::size_t kMaxTextBytes = 8192;
inline constexpr std::string_view kCutMark = "...";

// One finished line as a sink receives it. The views live only as long as the call.
struct Record {
  int level = 0;
  std::string_view module;    // tag of the library that speaks, such as "platform.LocalStorage"
  std::string_view format;    // the literal format, for tests and for grouping
  std::string_view text;      // the rendered line, without a line end
  std::uint32_t repeats = 0;  // how many equal lines of this call site were held back before this one
  bool cut = false;           // the line was longer than kMaxTextBytes
};

// The state of one call site, made by TANSY_LOG. The repeat window needs it.
struct CallSite {
  // All lines of the site are equal, because its format takes no arguments but function, file and line. Such lines are
  // counted as repeats before anything is rendered.
  const bool is_fixed = false;
  std::atomic<std::uint64_t> last_hash{0};
  std::atomic<std::int64_t> window_end_ms{0};
  std::atomic<std::uint32_t> held_back{0};
};

}  // namespace logging

#endif  // TANSY_LOGGING_RECORD_H
