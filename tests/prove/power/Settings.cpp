#include "Settings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

namespace prove {
namespace {

constexpr const char* kHelp =
    "  --seed N       another run; what was found by a run is found by its seed and its trace\n"
    "  --states N     this number of states\n"
    "  --minutes N    for this time\n"
    "  --tansyd FILE  another program than that of this build\n"
    "  --trace FILE   the file calls of an earlier run instead of new ones\n"
    "  --database D   prove_power: sqlite, or postgresql: a server of the run's own\n"
    "Without any of these the short form runs, with the defects that are put in on purpose.\n";

bool ParseNumber(const std::string& text, std::uint64_t& number) {
  char* end = nullptr;
  number = std::strtoull(text.c_str(), &end, 10);
  return !text.empty() && *end == '\0';
}

}  // namespace

Settings& Settings::Get() {
  static Settings settings;
  return settings;
}

int RunProve(int argc, char** argv, const std::string& long_test, const std::string& on_postgresql) {
  testing::InitGoogleTest(&argc, argv);
  Settings& settings = Settings::Get();
  const auto refuse = [&](const std::string& what) {
    std::cerr << argv[0] << ": " << what << "\n" << kHelp;
    return 2;
  };
  for (int i = 1; i < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--help") {
      std::cout << kHelp;
      return 0;
    }
    std::uint64_t number = 0;
    const std::string value = i + 1 < argc ? argv[i + 1] : "";
    if (option == "--trace" && !value.empty()) {
      settings.trace = value;
    } else if (option == "--tansyd" && !value.empty()) {
      settings.tansyd = value;
    } else if (option == "--database" && !on_postgresql.empty() && (value == "sqlite" || value == "postgresql")) {
      settings.on_postgresql = value == "postgresql";
    } else if (!ParseNumber(value, number)) {
      return refuse(option + " needs a value");
    } else if (option == "--seed") {
      settings.seed = number;
    } else if (option == "--states") {
      settings.states = static_cast<int>(number);
    } else if (option == "--minutes") {
      settings.minutes = static_cast<int>(number);
    } else {
      return refuse("there is no option " + option);
    }
  }
  if (argc > 1 && GTEST_FLAG_GET(filter) == "*") {
    GTEST_FLAG_SET(filter, settings.on_postgresql ? on_postgresql : long_test);
  }
  return RUN_ALL_TESTS();
}

}  // namespace prove
