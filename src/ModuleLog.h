#ifndef TANSY_SRC_MODULE_LOG_H
#define TANSY_SRC_MODULE_LOG_H

#include "logging/Logging.h"

// One diagnostic of the module: CLOUD_LOG(logging::kError, "[%s]text %d[%s(%d)]", 5). A macro, because only one can
// name the place that it is called from.
#define CLOUD_LOG(level, format, ...) TANSY_LOG(level, "platform.LocalStorage", format __VA_OPT__(, ) __VA_ARGS__)

#endif  // TANSY_SRC_MODULE_LOG_H
