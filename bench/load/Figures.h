// What a load program found out, as one line that scripts read.
#ifndef TANSY_BENCH_FIGURES_H
#define TANSY_BENCH_FIGURES_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace TansyBench {

struct Figures {
  std::vector<std::uint32_t> latencies;  // one per answered request, microseconds
  std::uint64_t bytes = 0;               // of bodies, either way
  std::uint64_t errors = 0;
  std::string first_error;
  std::string security = "plain";

  void Add(Figures other);
};

// Prints "requests=N seconds=S bytes=B p50=US p99=US errors=E tls=..." and, to standard error, the first error.
void Print(Figures figures, std::chrono::duration<double> time);

}  // namespace TansyBench

#endif  // TANSY_BENCH_FIGURES_H
