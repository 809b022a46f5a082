// A straight line through samples, and how sure it is.
#ifndef TANSY_TESTS_PROVE_SOAK_SLOPE_H
#define TANSY_TESTS_PROVE_SOAK_SLOPE_H

#include <vector>

namespace prove {

struct Point {
  double hours = 0;
  double value = 0;
};

struct Slope {
  double per_hour = 0;
  // A slope within this bound is noise: four times the standard error of the slope, and the rate at which the value
  // would have moved by `resolution` in all of the time.
  double noise_per_hour = 0;

  bool IsGrowth() const { return per_hour > noise_per_hour; }
};

// By least squares. With fewer than three points there is no slope, and no growth.
Slope FitSlope(const std::vector<Point>& points, double resolution);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_SOAK_SLOPE_H
