// prove_soak: clients of every kind for as long as one likes, and whether memory, descriptors, threads or space grow.
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <ctime>
#include <exception>
#include <iostream>
#include <string>

#include "Soak.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest();
  CLI::App app("Looks whether a server keeps something of what its clients did", "soak");
  std::int64_t minutes = 10;
  std::int64_t cycle_seconds = 15;
  prove::SoakOptions options;
  options.seed = static_cast<std::uint64_t>(std::time(nullptr));
  app.add_option("--minutes", minutes, "of the whole run; the first fifth is the warm-up");
  app.add_option("--cycle", cycle_seconds, "seconds of work between two looks");
  app.add_option("--tansyd", options.program, "of another build");
  std::string database = "sqlite";
  app.add_option("--database", database, "sqlite, or postgresql: a server of the run's own")
      ->check(CLI::IsMember({"sqlite", "postgresql"}));
  app.add_option("--seed", options.seed, "of what the clients do; without it, the time of day");
  CLI11_PARSE(app, argc, argv);
  options.database = database == "postgresql" ? prove::EDatabase::kPostgres : prove::EDatabase::kSqlite;
  options.time = std::chrono::minutes(minutes);
  options.cycle = std::chrono::seconds(cycle_seconds);
  options.space_patience = std::chrono::seconds(15);
  options.warm_up = static_cast<std::size_t>(minutes * 60 / (cycle_seconds + 2) / 5);
  options.report = [](const std::string& line) { std::cout << line << std::endl; };
  std::cout << "soak: seed " << options.seed << ", " << database << std::endl;
  try {
    const prove::SoakResult result = prove::RunSoak(options);
    std::cout << prove::Describe(result);
    return result.Growing().empty() && result.wrong.empty() && !testing::UnitTest::GetInstance()->Failed() ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << "soak: " << error.what() << '\n';
    return 2;
  }
}
