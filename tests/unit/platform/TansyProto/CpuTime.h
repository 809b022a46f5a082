#ifndef TANSY_TESTS_TANSY_PROTO_CPU_TIME_H
#define TANSY_TESTS_TANSY_PROTO_CPU_TIME_H

#include <ctime>

namespace TansyProto {

// Seconds of processor time that some work takes: what else the machine does meanwhile hardly matters.
template <typename Work>
double CpuSeconds(Work work) {
  const std::clock_t start = std::clock();
  work();
  return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

// Whether eight times the work takes about eight times as long. Work that grows with the square would take 64 times.
template <typename Work>
bool IsLinear(Work work, int size) {
  work(size / 8);  // warms up
  const double small = CpuSeconds([&] { work(size / 8); });
  const double big = CpuSeconds([&] { work(size); });
  return big < 24 * small + 0.1;
}

}  // namespace TansyProto

#endif  // TANSY_TESTS_TANSY_PROTO_CPU_TIME_H
