// The model against servers with one defect each, which it must find, and against the real server, which must have
// none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iostream>
#include <string>

#include "FaultyServer.h"
#include "History.h"
#include "Run.h"
#include "TansydServer.h"
#include "fakes/TempFolder.h"

namespace prove {
namespace {

// The plan of a server that knows objects only.
RunOptions ForObjects(std::uint64_t seed) {
  RunOptions options;
  options.seed = seed;
  options.rounds = 20;
  options.patience = std::chrono::milliseconds(1500);
  options.features = {false, false, false, false, false};
  return options;
}

struct Planted {
  EDefect defect;
  const char* name;
  const char* shown_as;  // what a contradiction says

  friend void PrintTo(const Planted& planted, std::ostream* out) { *out << planted.name; }
};

class PlantedDefectTest : public testing::TestWithParam<Planted> {};

TEST_P(PlantedDefectTest, IsFound) {
  const Tansy::Tests::CTempFolder folder;
  RunOptions options = ForObjects(1);
  options.history_file = folder.Path("history");
  CFaultyServer server(GetParam().defect);
  const RunResult result = RunModel(server, options);
  EXPECT_THAT(result.wrong, testing::Contains(testing::HasSubstr(GetParam().shown_as))) << Describe(options, result);

  // Its history alone shows the same.
  std::ifstream file(options.history_file);
  CHistory history;
  CHistory::Load(file, history);
  EXPECT_EQ(history.Check(), result.wrong);
}

INSTANTIATE_TEST_SUITE_P(
    Defect, PlantedDefectTest,
    testing::Values(Planted{EDefect::kAnswerBeforeCommit, "AnswerBeforeCommit", "but it can have held"},
                    Planted{EDefect::kStaleRead, "StaleRead", "but it can have held"},
                    Planted{EDefect::kLostUpdate, "LostUpdate", "but it can have held"},
                    Planted{EDefect::kMixedVersions, "MixedVersions", " has at "},
                    Planted{EDefect::kLostWakeUp, "LostWakeUp", "no answer within its time"},
                    Planted{EDefect::kForgottenRemoval, "ForgottenRemoval", "but it can have held"}),
    [](const auto& item) { return std::string(item.param.name); });

TEST(NoDefectTest, AServerWithoutOnePasses) {
  CFaultyServer server(EDefect::kNone);
  RunOptions options = ForObjects(1);
  options.patience = system_tests::kPatience;
  const RunResult result = RunModel(server, options);
  EXPECT_TRUE(result.wrong.empty()) << Describe(options, result);
  EXPECT_GT(result.kills, 0U);
  EXPECT_GT(result.operations, 500U);
}

// Kills, stops, clock steps: what prove_model does for as long as one likes.
class ModelRunTest : public testing::TestWithParam<const char*> {};

TEST_P(ModelRunTest, EachObjectIsOneCopyThatIsNeverLost) {
  const Tansy::Tests::CTempFolder folder;
  RunOptions options;
  options.seed = 2;
  options.rounds = 12;
  CTansydServer server(folder.GetPath(), {"--durability", GetParam(), "--keep-failed", "1", "--keep-removed", "0"});
  RunResult result = RunModel(server, options);
  if (result.wrong.empty()) {
    result.wrong = CheckSpace(server, result);
  }
  EXPECT_TRUE(result.wrong.empty()) << server.GetTansyd().GetLog();
  std::cout << Describe(options, result);
  EXPECT_GT(result.kills, 0U);
  EXPECT_GT(result.stops, 0U);
  EXPECT_GT(result.operations, 500U);
  EXPECT_GT(result.pictures, 0U);
}

INSTANTIATE_TEST_SUITE_P(Durability, ModelRunTest, testing::Values("full", "fast"),
                         [](const auto& item) { return std::string(item.param); });

}  // namespace
}  // namespace prove
