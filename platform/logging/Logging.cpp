#include "logging/Logging.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <new>
#include <utility>

#include "logging/RepeatFilter.h"
#include "logging/Text.h"

namespace logging {
namespace details {

constinit TANSY_LOGGING_DATA std::atomic<int> lowest_level{kNotable};

namespace {

// Keeps errors from being lost until the host has set its sink.
class CStandardErrorSink : public ISink {
 public:
  void Write(const Record& record) override {
    if (record.level >= kError) {
      // When standard error cannot be written, there is no other place to say so.
      static_cast<void>(std::fprintf(stderr, "%.*s\n", static_cast<int>(record.text.size()), record.text.data()));
    }
  }
  void Flush() override { static_cast<void>(std::fflush(stderr)); }
};

// The state of the process's log.
struct Log {
  CStandardErrorSink standard_error;
  std::mutex mutex;
  // The pointer owns nothing at first; the mutex guards it.
  std::shared_ptr<ISink> sink{std::shared_ptr<ISink>(), &standard_error};
  CRepeatFilter repeats;
};

// The log is never destroyed, because threads may log while the process ends. It is never allocated, because the line
// to log may be that memory has run out.
Log& TheLog() {
  alignas(Log) static unsigned char memory[sizeof(Log)];
  static Log* const log = new (memory) Log;
  return *log;
}

std::shared_ptr<ISink> CurrentSink() {
  Log& log = TheLog();
  const std::lock_guard lock(log.mutex);
  return log.sink;
}

std::int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void WriteHeld(ISink& sink, const HeldLine& line) {
  if (line.site == nullptr || line.repeats == 0) {
    return;
  }
  sink.Write(Record{line.level, line.module, line.format, line.text, line.repeats, line.cut});
}

void WriteThroughFilter(ISink& sink, CallSite& site, Record& record) {
  CRepeatFilter& repeats = TheLog().repeats;
  const std::int64_t now_ms = NowMs();
  HeldLine before;
  const bool admitted = repeats.Admit(site, record, now_ms, before);
  for (const HeldLine& line : repeats.TakeDue(now_ms)) {
    WriteHeld(sink, line);
  }
  if (admitted) {
    WriteHeld(sink, before);
    sink.Write(record);
  }
}

// Counts a line of a site whose lines are all equal, if it need not be rendered to know what becomes of it.
bool CountsAsRepeat(CallSite& site) {
  CRepeatFilter& repeats = TheLog().repeats;
  return repeats.IsOn() && repeats.Count(site, NowMs());
}

// Gives the line in `buffer`, which would have needed `needed` bytes.
std::string_view CutText(char (&buffer)[kMaxTextBytes + 1], std::size_t needed, bool& cut) {
  cut = needed > kMaxTextBytes;
  if (!cut) {
    return {buffer, needed};
  }
  const std::string_view kept = CutAtCharacter({buffer, kMaxTextBytes}, kMaxTextBytes - kCutMark.size());
  std::copy(kCutMark.begin(), kCutMark.end(), buffer + kept.size());
  return {buffer, kept.size() + kCutMark.size()};
}

}  // namespace
}  // namespace details

std::shared_ptr<ISink> SetSink(std::shared_ptr<ISink> sink) {
  Flush();
  details::Log& log = details::TheLog();
  const std::lock_guard lock(log.mutex);
  return std::exchange(log.sink, std::move(sink));
}

int SetLowestLevel(int level) {
  return details::lowest_level.exchange(level, std::memory_order_relaxed);
}

void SetRepeatWindow(std::uint32_t milliseconds) {
  details::TheLog().repeats.SetWindow(milliseconds);
}

void Flush() {
  const std::shared_ptr<ISink> sink = details::CurrentSink();
  try {
    const auto held = details::TheLog().repeats.TakeAll();
    if (sink == nullptr) {
      return;
    }
    for (const details::HeldLine& line : held) {
      details::WriteHeld(*sink, line);
    }
    sink->Flush();
  } catch (...) {
    // A log that cannot be written must not end the program.
  }
}

void Write(CallSite& site, int level, const char* module, const char* format, ...) {
  if (site.is_fixed && details::CountsAsRepeat(site)) {
    return;
  }
  const std::shared_ptr<ISink> sink = details::CurrentSink();
  if (sink == nullptr) {
    return;
  }
  char buffer[kMaxTextBytes + 1];
  va_list arguments;
  va_start(arguments, format);
  const int needed = std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);

  Record record;
  record.level = level;
  record.module = module;
  record.format = format;
  // When the arguments cannot be rendered, the line is the format, which says at least where and what.
  record.text = needed < 0 ? record.format : details::CutText(buffer, static_cast<std::size_t>(needed), record.cut);
  try {
    if (details::TheLog().repeats.IsOn()) {
      details::WriteThroughFilter(*sink, site, record);
    } else {
      sink->Write(record);
    }
  } catch (...) {
    // The exception is ignored as in Flush.
  }
}

}  // namespace logging
