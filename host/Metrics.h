#ifndef TANSY_HOST_METRICS_H
#define TANSY_HOST_METRICS_H

#include <cstdint>
#include <optional>
#include <string>

#include "ServerHealth.h"

namespace Tansy::Host {

// What the figures of a server are taken from, besides what the libraries count themselves.
struct MetricsSource {
  std::int64_t start_time = 0;                   // seconds since 1970
  std::optional<std::int64_t> certificate_ends;  // the same; empty without HTTPS
  std::uint64_t free_bytes = 0;                  // of the disk of the stored bytes
  std::uint64_t disk_bytes = 0;                  // all of it; 0 when they are not on a disk of this machine
  HealthReport health;
};

// Gives all figures of the process in Prometheus' text format. Threads: any. It takes some 100 microseconds.
std::string MetricsText(const MetricsSource& source);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_METRICS_H
