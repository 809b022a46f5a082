#ifndef TANSY_SRC_MODULE_LOG_H
#define TANSY_SRC_MODULE_LOG_H

#include "logging/Logging.h"

// Logs one diagnostic of the module: CLOUD_LOG(logging::kError, "[%s]text %d[%s(%d)]", 5). It is a macro, because only
// a macro can name the place that it is called from.
#define CLOUD_LOG(level, format, ...) TANSY_LOG(level, "platform.LocalStorage", format __VA_OPT__(, ) __VA_ARGS__)

namespace Tansy::CloudStorage::details {

// The function in whose name a helper writes its log lines. A helper that several functions share names the function
// that was called from outside, because people search for that name. All of its texts live as long as the process.
struct Caller {
  const char* function;
  const char* file;
  int line;
};

}  // namespace Tansy::CloudStorage::details

// Makes a Caller of the function and line where it stands. It is a macro for the same reason.
#define CLOUD_LOG_CALLER                                                           \
  ([]() -> ::Tansy::CloudStorage::details::Caller {                                \
    static constexpr auto name = ::logging::CutQualifiedName(TANSY_FUNCTION_TEXT); \
    return {name.text, __FILE__, __LINE__};                                        \
  }())

// Does the same as CLOUD_LOG in the name of a Caller.
#define CLOUD_LOG_FOR(caller, level, format, ...)                                                                  \
  do {                                                                                                             \
    if (::logging::IsEnabled(level)) {                                                                             \
      static ::logging::CallSite site;                                                                             \
      ::logging::Write(site, level, "platform.LocalStorage", format, (caller).function __VA_OPT__(, ) __VA_ARGS__, \
                       (caller).file, (caller).line);                                                              \
    }                                                                                                              \
  } while (false)

#endif  // TANSY_SRC_MODULE_LOG_H
