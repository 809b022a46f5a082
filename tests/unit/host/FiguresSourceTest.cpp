#include "FiguresSource.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace Tansy::Host {
namespace {

TEST(FiguresSourceTest, GivesWhatIsKnown) {
  const auto disk = std::make_shared<CDiskFigures>();
  disk->SetRoom({100, 40});
  const auto source = MakeFiguresSource(
      std::make_shared<CServerHealth>(std::vector<CServerHealth::Probe>{{"database", [] { return std::string(); }}}),
      disk, 7);
  const MetricsSource figures = source();
  EXPECT_EQ(figures.start_time, 7);
  EXPECT_EQ(figures.disk_bytes, 100U);
  EXPECT_EQ(figures.free_bytes, 40U);
  ASSERT_EQ(figures.health.parts.size(), 1U);
  EXPECT_EQ(figures.health.parts[0].name, "database");
}

// A start that fails at its second address lets go of all while the first one may have a request under way.
TEST(FiguresSourceTest, WhatItReadsLivesAsLongAsIt) {
  auto health = std::make_shared<CServerHealth>(
      std::vector<CServerHealth::Probe>{{"database", [] { return std::string("gone"); }}});
  auto disk = std::make_shared<CDiskFigures>();
  const std::weak_ptr<CServerHealth> health_lives = health;
  const std::weak_ptr<CDiskFigures> disk_lives = disk;
  auto source = MakeFiguresSource(health, disk, 7);
  health->Begin();
  health->Stop();
  health.reset();
  disk.reset();
  ASSERT_FALSE(health_lives.expired());
  ASSERT_FALSE(disk_lives.expired());
  EXPECT_EQ(source().health.parts.size(), 1U);
  source = nullptr;
  EXPECT_TRUE(health_lives.expired());
  EXPECT_TRUE(disk_lives.expired());
}

}  // namespace
}  // namespace Tansy::Host
