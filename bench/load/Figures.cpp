#include "Figures.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace TansyBench {
namespace {

// Takes sorted latencies.
double Percentile(const std::vector<std::uint32_t>& latencies, double share) {
  if (latencies.empty()) {
    return 0;
  }
  const auto index = static_cast<std::size_t>(share * static_cast<double>(latencies.size()));
  return latencies[std::min(index, latencies.size() - 1)];
}

}  // namespace

void Figures::Add(Figures other) {
  latencies.insert(latencies.end(), other.latencies.begin(), other.latencies.end());
  bytes += other.bytes;
  errors += other.errors;
  if (first_error.empty()) {
    first_error = std::move(other.first_error);
  }
  if (security == "plain") {
    security = std::move(other.security);
  }
}

void Print(Figures figures, std::chrono::duration<double> time) {
  std::sort(figures.latencies.begin(), figures.latencies.end());
  std::printf("requests=%zu seconds=%.6f bytes=%llu p50=%.0f p99=%.0f errors=%llu tls=%s\n", figures.latencies.size(),
              time.count(), static_cast<unsigned long long>(figures.bytes), Percentile(figures.latencies, 0.5),
              Percentile(figures.latencies, 0.99), static_cast<unsigned long long>(figures.errors),
              figures.security.c_str());
  if (!figures.first_error.empty()) {
    std::fprintf(stderr, "tansy_load: %s\n", figures.first_error.c_str());
  }
}

}  // namespace TansyBench
