// Clients at work for a long time, and whether the server keeps something of what they did.
#ifndef TANSY_TESTS_PROVE_SOAK_SOAK_H
#define TANSY_TESTS_PROVE_SOAK_SOAK_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Backend.h"
#include "Slope.h"

namespace prove {

struct SoakOptions {
  std::string program;  // a tansyd; empty: that of this build
  EDatabase database = EDatabase::kSqlite;
  std::string leak;  // what a tansyd that leaks is told to leak
  std::uint64_t seed = 1;
  std::chrono::milliseconds time{0};            // of all cycles together, or
  std::size_t cycles = 0;                       // their number
  std::chrono::milliseconds cycle{0};           // clients at work, then a pause for a look
  std::chrono::milliseconds space_patience{0};  // how long a look waits for housekeeping; none: space is not looked at
  std::size_t warm_up = 0;                      // cycles whose looks do not count
  bool with_big_ones = true;                    // bodies of more than 10 MiB and the command-line client too
  std::function<void(const std::string& line)> report;  // null: nobody listens
};

// One value of the server, at each look.
struct Measure {
  std::string name;
  double resolution = 0;  // the change in all of a run that says nothing
  std::vector<Point> points;
  Slope slope;
};

struct SoakResult {
  std::vector<Measure> measures;
  std::vector<std::string> wrong;  // answers that no healthy server gives
  std::size_t requests = 0;
  double hours = 0;

  // The names of the values that grow.
  std::vector<std::string> Growing() const;
};

SoakResult RunSoak(const SoakOptions& options);

// One line per value, for a person.
std::string Describe(const SoakResult& result);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_SOAK_SOAK_H
