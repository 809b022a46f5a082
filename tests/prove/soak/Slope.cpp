#include "Slope.h"

#include <cmath>

namespace prove {
namespace {

constexpr double kStandardErrors = 4;

}  // namespace

Slope FitSlope(const std::vector<Point>& points, double resolution) {
  if (points.size() < 3) {
    return {};
  }
  const auto count = static_cast<double>(points.size());
  double time = 0;
  double value = 0;
  for (const Point& point : points) {
    time += point.hours / count;
    value += point.value / count;
  }
  double spread = 0;
  double product = 0;
  for (const Point& point : points) {
    spread += (point.hours - time) * (point.hours - time);
    product += (point.hours - time) * (point.value - value);
  }
  Slope slope;
  if (spread <= 0) {
    return slope;
  }
  slope.per_hour = product / spread;
  double rest = 0;
  for (const Point& point : points) {
    const double off = point.value - value - slope.per_hour * (point.hours - time);
    rest += off * off;
  }
  const double error = std::sqrt(rest / (count - 2) / spread);
  slope.noise_per_hour = kStandardErrors * error + resolution / (points.back().hours - points.front().hours);
  return slope;
}

}  // namespace prove
