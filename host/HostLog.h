#ifndef TANSY_HOST_HOST_LOG_H
#define TANSY_HOST_HOST_LOG_H

#include "logging/Logging.h"

// One diagnostic of the host. A macro, because only one can name the place that it is called from.
#define HOST_LOG(level, format, ...) TANSY_LOG(level, "platform.Host", format __VA_OPT__(, ) __VA_ARGS__)

#endif  // TANSY_HOST_HOST_LOG_H
