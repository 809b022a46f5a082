// The command line of a program that runs for as long as it is told to.
#ifndef TANSY_TESTS_PROVE_POWER_SETTINGS_H
#define TANSY_TESTS_PROVE_POWER_SETTINGS_H

#include <cstdint>
#include <string>

namespace prove {

// A server with sanitizers takes many times as long, so its short runs are shorter.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kIsSlow = true;
#else
inline constexpr bool kIsSlow = false;
#endif

struct Settings {
  std::uint64_t seed = 1;
  int states = 0;      // 0: as many as the short form has
  int minutes = 0;     // 0: by number
  std::string tansyd;  // the program to try; empty: that of this build
  std::string trace;   // one that an earlier run has kept; empty: new ones
  bool on_postgresql = false;

  bool IsLong() const { return states > 0 || minutes > 0; }

  // Of this process.
  static Settings& Get();
};

// Runs the tests of this program: all of them, or, when options name a length, the one that can be long. Gives the
// exit code. `on_postgresql`: the long one for --database postgresql; empty: there is none.
int RunProve(int argc, char** argv, const std::string& long_test, const std::string& on_postgresql = "");

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_SETTINGS_H
