// The host's logging facility.
//
// A diagnostic is one call with a level, a module tag, a printf format, the caller's qualified function name, the
// arguments, and the source file and line. TANSY_LOG supplies what only the call site knows. Formats start with "[%s]"
// (function name) and end with "[%s(%d)]" (file and line); they stay whole and literal in the code, because people
// search logs for them.
//
// Threads: every function here may be called from any thread at any time. Nothing throws.
#ifndef TANSY_LOGGING_LOGGING_H
#define TANSY_LOGGING_LOGGING_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "logging/QualifiedName.h"
#include "logging/Record.h"

namespace logging {

enum Level : int {
  kTrace = 2,     // every request, every URL sent, parsed parts
  kNotable = 3,   // normal events worth keeping
  kDatabase = 4,  // a statement, a connection or a sequence failed
  kError = 5,     // a check, a start, a stop or a send failed
};

// Receives the lines. Several threads may call `Write` at once, and it must not log.
class ISink {
 public:
  virtual ~ISink() = default;
  virtual void Write(const Record& record) = 0;
  virtual void Flush() {}
};

// Replaces the sink and returns the one before; lines under way still reach the old one. An empty pointer discards
// lines. Until the first call, lines of level kError go to standard error. The last sink is never destroyed: a program
// whose sink writes in the background calls Flush, or SetSink with an empty pointer, before it ends.
std::shared_ptr<ISink> SetSink(std::shared_ptr<ISink> sink);

// Sets the lowest level that is written; lines below cost one comparison. The default is kNotable. Returns the level
// before.
int SetLowestLevel(int level);

// Equal lines of one call site within this many milliseconds after the first are counted and summed up in one line; 0
// (the default) writes each of them. The sum travels as `repeats` of the next equal line. When no equal line comes, it
// travels with a copy of the line, which is written as soon as anything is written after the window's end, or by Flush.
void SetRepeatWindow(std::uint32_t milliseconds);

// Writes all sums, whether they are due or not, and waits until everything written so far has left the process.
void Flush();

// `function` is the qualified name. It is also the first argument of the format; file and line are the last ones.
void Write(CallSite& site, int level, const char* module, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;

// Inline code reads this data across the border of the library, so Windows needs it marked as imported.
#if defined(_WIN32) && !defined(logging_EXPORTS)
#define TANSY_LOGGING_DATA __declspec(dllimport)
#else
#define TANSY_LOGGING_DATA
#endif

namespace details {
extern TANSY_LOGGING_DATA std::atomic<int> lowest_level;
}  // namespace details

inline bool IsEnabled(int level) {
  return level >= details::lowest_level.load(std::memory_order_relaxed);
}

}  // namespace logging

#if defined(_MSC_VER)
#define TANSY_FUNCTION_TEXT __FUNCSIG__
#else
#define TANSY_FUNCTION_TEXT __PRETTY_FUNCTION__
#endif

// TANSY_LOG(level, module, "[%s]text %d[%s(%d)]", 5): function name, file and line are added around the arguments.
#define TANSY_LOG(level, module, format, ...)                                                                  \
  do {                                                                                                         \
    if (::logging::IsEnabled(level)) {                                                                         \
      static constinit ::logging::CallSite tansy_call_site{.is_fixed = true __VA_OPT__(&&false)};              \
      static constexpr auto tansy_function = ::logging::CutQualifiedName(TANSY_FUNCTION_TEXT);                 \
      ::logging::Write(tansy_call_site, level, module, format, tansy_function.text __VA_OPT__(, ) __VA_ARGS__, \
                       __FILE__, __LINE__);                                                                    \
    }                                                                                                          \
  } while (false)

#endif  // TANSY_LOGGING_LOGGING_H
