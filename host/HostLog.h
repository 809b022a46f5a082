#ifndef TANSY_HOST_HOST_LOG_H
#define TANSY_HOST_HOST_LOG_H

#include "logging/Logging.h"

// Logs one diagnostic of the host. It is a macro, because only a macro can name the place that it is called from.
#define HOST_LOG(level, format, ...) TANSY_LOG(level, "platform.Host", format __VA_OPT__(, ) __VA_ARGS__)

#endif  // TANSY_HOST_HOST_LOG_H
