#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_LOG_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_LOG_H

#include "ModuleLog.h"

namespace Tansy::CloudStorage::details {

// Who asked for a check that several handlers share. The check's log lines name the handler, as if it had looked
// itself: that is the name that people search for.
struct Caller {
  const char* function;
  const char* file;
  int line;
};

}  // namespace Tansy::CloudStorage::details

// The function and line that it stands in, as a Caller.
#define OBJECT_SERVER_CALLER                                                       \
  ([]() -> ::Tansy::CloudStorage::details::Caller {                                \
    static constexpr auto name = ::logging::CutQualifiedName(TANSY_FUNCTION_TEXT); \
    return {name.text, __FILE__, __LINE__};                                        \
  }())

// CLOUD_LOG in another function's name.
#define CLOUD_LOG_FOR(caller, level, format, ...)                                                                  \
  do {                                                                                                             \
    if (::logging::IsEnabled(level)) {                                                                             \
      static ::logging::CallSite site;                                                                             \
      ::logging::Write(site, level, "platform.LocalStorage", format, (caller).function __VA_OPT__(, ) __VA_ARGS__, \
                       (caller).file, (caller).line);                                                              \
    }                                                                                                              \
  } while (false)

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_LOG_H
