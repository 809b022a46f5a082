// The soak in short: a server that leaks is found, whatever it leaks, and the real one does not leak.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Slope.h"
#include "Soak.h"

namespace prove {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::StartsWith;

SoakOptions Short(std::size_t cycles) {
  SoakOptions options;
  options.program = TANSYD_THAT_LEAKS;  // nothing, unless it is told to
  options.cycles = cycles;
  options.cycle = std::chrono::milliseconds(300);
  options.warm_up = 1;
  options.with_big_ones = false;
  return options;
}

// Sanitizers look for lost memory themselves, and keep much of what is not lost.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(LeakTest, MemoryIsFound) {
  SoakOptions options = Short(6);
  options.leak = "memory";
  const SoakResult result = RunSoak(options);
  EXPECT_THAT(result.Growing(), ElementsAre(StartsWith("memory"))) << Describe(result);
}
#endif

TEST(LeakTest, DescriptorsAndThreadsAreFound) {
  SoakOptions options = Short(6);
  options.leak = "descriptor,thread";
  const SoakResult result = RunSoak(options);
  EXPECT_THAT(result.Growing(), IsSupersetOf({StartsWith("descriptors"), StartsWith("threads")})) << Describe(result);
}

TEST(LeakTest, SpaceIsFound) {
  SoakOptions options = Short(13);
  options.leak = "space";
  options.space_patience = std::chrono::milliseconds(500);
  const SoakResult result = RunSoak(options);
  EXPECT_THAT(result.Growing(), Contains(StartsWith("space"))) << Describe(result);
}

TEST(SoakTest, TheServerKeepsNothing) {
  SoakOptions options = Short(10);
  options.warm_up = 4;
  const SoakResult result = RunSoak(options);
  EXPECT_THAT(result.Growing(), IsEmpty()) << Describe(result);
  EXPECT_THAT(result.wrong, IsEmpty());
  EXPECT_GT(result.requests, 50U);
}

// What has no row is given back after some seconds.
TEST(SoakTest, TheServerGivesAllSpaceBack) {
  SoakOptions options = Short(1);
  options.warm_up = 0;
  options.space_patience = std::chrono::seconds(60);
  const SoakResult result = RunSoak(options);
  EXPECT_EQ(result.measures[3].points.back().value, 0) << Describe(result);
  EXPECT_THAT(result.wrong, IsEmpty());
}

// The same for rows in PostgreSQL.
TEST(SoakOnPostgresTest, TheServerKeepsNothing) {
  SoakOptions options = Short(10);
  options.database = EDatabase::kPostgres;
  options.warm_up = 4;
  const SoakResult result = RunSoak(options);
  EXPECT_THAT(result.Growing(), IsEmpty()) << Describe(result);
  EXPECT_THAT(result.wrong, IsEmpty());
  EXPECT_GT(result.requests, 50U);
}
TEST(SoakOnPostgresTest, TheServerGivesAllSpaceBack) {
  SoakOptions options = Short(1);
  options.database = EDatabase::kPostgres;
  options.warm_up = 0;
  options.space_patience = std::chrono::seconds(60);
  const SoakResult result = RunSoak(options);
  EXPECT_EQ(result.measures[3].points.back().value, 0) << Describe(result);
  EXPECT_THAT(result.wrong, IsEmpty());
}
TEST(SoakOnPostgresTest, LostSpaceIsFound) {
  SoakOptions options = Short(13);
  options.database = EDatabase::kPostgres;
  options.leak = "space";
  options.space_patience = std::chrono::milliseconds(500);
  const SoakResult result = RunSoak(options);
  EXPECT_THAT(result.Growing(), Contains(StartsWith("space"))) << Describe(result);
}

TEST(SlopeTest, ALineIsFound) {
  std::vector<Point> points;
  for (int i = 0; i < 10; ++i) {
    points.push_back({i * 0.5, 3 + i * 2.0});
  }
  const Slope slope = FitSlope(points, 0);
  EXPECT_NEAR(slope.per_hour, 4, 1e-9);
  EXPECT_NEAR(slope.noise_per_hour, 0, 1e-6);
  EXPECT_TRUE(slope.IsGrowth());
  EXPECT_FALSE(FitSlope(points, 19).IsGrowth()) << "18 in all is below what says something";
}

TEST(SlopeTest, NoiseIsNoGrowth) {
  std::vector<Point> points;
  for (int i = 0; i < 40; ++i) {
    points.push_back({i * 0.01, 100.0 + (i * 7 % 5)});
  }
  EXPECT_FALSE(FitSlope(points, 0).IsGrowth());
  for (Point& point : points) {
    point.value += point.hours * 100;
  }
  EXPECT_TRUE(FitSlope(points, 0).IsGrowth()) << "a leak shows through it";
}

TEST(SlopeTest, LessAndTooFewAreNoGrowth) {
  EXPECT_FALSE(FitSlope({}, 0).IsGrowth());
  EXPECT_FALSE(FitSlope({{0, 0}, {1, 100}}, 0).IsGrowth());
  EXPECT_FALSE(FitSlope({{0, 100}, {1, 50}, {2, 0}}, 0).IsGrowth());
}

}  // namespace
}  // namespace prove
