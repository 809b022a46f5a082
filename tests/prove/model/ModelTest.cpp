// The model against servers with one defect each, which it must find, and against the real server, which must have
// none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "FaultyServer.h"
#include "History.h"
#include "ModelServers.h"
#include "Run.h"
#include "fakes/ChildProcess.h"
#include "fakes/StoppedProcess.h"
#include "fakes/TempFolder.h"
#include "support/Program.h"

namespace prove {
namespace {

// The plan of a server that knows objects only.
RunOptions ForObjects(std::uint64_t seed) {
  RunOptions options;
  options.seed = seed;
  options.rounds = 20;
  options.patience = std::chrono::milliseconds(1500);
  options.features = {false, false, false, false, false, true, false, false};
  return options;
}

// Nodes with a memory of their own, on one store.
RunResult RunFaultyNodes(EDefect defect, RunOptions& options) {
  CFaultyStore store(defect);
  CFaultyServer first(store, true);
  CFaultyServer second(store, true);
  options.features.nodes = true;
  return RunModel({&first, &second}, options);
}

struct Planted {
  EDefect defect;
  const char* name;
  const char* shown_as;  // what a contradiction says
  const char* may_be_shown_as = "but it can have held";

  friend void PrintTo(const Planted& planted, std::ostream* out) { *out << planted.name; }
};

class PlantedDefectTest : public testing::TestWithParam<Planted> {};

TEST_P(PlantedDefectTest, IsFound) {
  const Tansy::Tests::CTempFolder folder;
  RunOptions options = ForObjects(1);
  options.history_file = folder.Path("history");
  CFaultyStore store(GetParam().defect);
  CFaultyServer server(store);
  const RunResult result = RunModel({&server}, options);
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
                    Planted{EDefect::kForgottenRemoval, "ForgottenRemoval", "but it can have held"},
                    Planted{EDefect::kConditionIgnored, "ConditionIgnored", "but it can have held"}),
    [](const auto& item) { return std::string(item.param.name); });

class PlantedNodeDefectTest : public testing::TestWithParam<Planted> {};

// Two rules may be broken by one defect; which of them a read breaks first is a matter of time, and a run ends with it.
TEST_P(PlantedNodeDefectTest, IsFound) {
  RunOptions options = ForObjects(1);
  const RunResult result = RunFaultyNodes(GetParam().defect, options);
  EXPECT_THAT(result.wrong, testing::Contains(testing::AnyOf(testing::HasSubstr(GetParam().shown_as),
                                                             testing::HasSubstr(GetParam().may_be_shown_as))))
      << Describe(options, result);
}

INSTANTIATE_TEST_SUITE_P(Defect, PlantedNodeDefectTest,
                         testing::Values(Planted{EDefect::kAnswerBeforeCommit, "AnswerBeforeCommit",
                                                 "but it can have held", "but before that, at the same node"},
                                         Planted{EDefect::kOldMemory, "OldMemory", "but it can have held",
                                                 "but before that, at the same node"},
                                         Planted{EDefect::kNewOneNotFound, "NewOneNotFound", "but it can have held"},
                                         Planted{EDefect::kOwnWriteForgotten, "OwnWriteForgotten",
                                                 "but before that, at the same node"}),
                         [](const auto& item) { return std::string(item.param.name); });

TEST(NoDefectTest, NodesThatAreBehindAsLongAsTheyMayPass) {
  RunOptions options = ForObjects(1);
  options.rounds = 6;
  options.patience = system_tests::kPatience;
  const RunResult result = RunFaultyNodes(EDefect::kNone, options);
  EXPECT_TRUE(result.wrong.empty()) << Describe(options, result);
  EXPECT_GT(result.operations, 500U);
}

TEST(NoDefectTest, AServerWithoutOnePasses) {
  CFaultyStore store(EDefect::kNone);
  CFaultyServer server(store);
  RunOptions options = ForObjects(1);
  options.patience = system_tests::kPatience;
  const RunResult result = RunModel({&server}, options);
  EXPECT_TRUE(result.wrong.empty()) << Describe(options, result);
  EXPECT_GT(result.kills, 0U);
  EXPECT_GT(result.operations, 500U);
}

struct Way {
  const char* name;
  const char* durability;
  bool tls;
  std::size_t rounds;
  std::size_t nodes = 1;
  EDatabase database = EDatabase::kSqlite;
  EStorage storage = EStorage::kFolder;
  std::uint64_t seed = 2;  // its first rounds have a kill and something else

  friend void PrintTo(const Way& way, std::ostream* out) { *out << way.name; }
};

// Kills, stops, clock steps: what prove_model does for as long as one likes.
class ModelRunTest : public testing::TestWithParam<Way> {};

TEST_P(ModelRunTest, EachObjectIsOneCopyThatIsNeverLost) {
  const Tansy::Tests::CTempFolder folder;
  RunOptions options;
  options.seed = GetParam().seed;
  options.rounds = GetParam().rounds;
  options.looks_at_space = GetParam().storage == EStorage::kFolder || GetParam().database == EDatabase::kSqlite;
  TansydOptions tansyd;
  tansyd.arguments = {"--durability", GetParam().durability, "--keep-failed", "1", "--keep-removed", "0"};
  tansyd.tls = GetParam().tls;
  const CModelServers servers(folder.GetPath(), tansyd, GetParam().nodes, GetParam().database, GetParam().storage);
  const RunResult result = servers.Run(options);
  EXPECT_TRUE(result.wrong.empty()) << servers.GetLogs();
  std::cout << Describe(options, result);
  EXPECT_GT(result.kills, 0U);
  EXPECT_GT(result.stops + result.crashes, 0U);
  EXPECT_GT(result.operations, 300U);
  EXPECT_GT(result.pictures, 0U);
}

INSTANTIATE_TEST_SUITE_P(Ways, ModelRunTest,
                         testing::Values(Way{"Full", "full", false, 12}, Way{"Fast", "fast", false, 12},
                                         Way{"Https", "fast", true, 6}),
                         [](const auto& item) { return std::string(item.param.name); });

INSTANTIATE_TEST_SUITE_P(
    ModelOnPostgres, ModelRunTest,
    testing::Values(Way{"OneServer", "full", false, 3, 1, EDatabase::kPostgres, EStorage::kFolder, 12},
                    Way{"ThreeNodes", "full", false, 3, 3, EDatabase::kPostgres, EStorage::kFolder, 17}),
    [](const auto& item) { return std::string(item.param.name); });
INSTANTIATE_TEST_SUITE_P(
    ModelOnCeph, ModelRunTest,
    testing::Values(Way{"SqliteAndPool", "full", false, 3, 1, EDatabase::kSqlite, EStorage::kPool, 17},
                    Way{"PostgresAndPool", "full", false, 2, 1, EDatabase::kPostgres, EStorage::kPool, 18},
                    Way{"ThreeNodesAndPool", "full", false, 2, 3, EDatabase::kPostgres, EStorage::kPool, 30}),
    [](const auto& item) { return std::string(item.param.name); });

// A server that was left behind would go on using its ports and its memory.
TEST(KilledRunTest, LeavesNoServerBehind) {
  const Tansy::Tests::CTempFolder folder;
  system_tests::Invocation run;
  run.program = PROVE_MODEL;
  run.arguments = {"--rounds", "1000000", "--history", folder.Path("history")};
  run.environment = {{"TMPDIR", folder.GetPath()}};
  run.folder = folder.GetPath();
  system_tests::CProgram program(run);
  // The run itself ends its servers again and again, so it is stopped while it is looked at.
  pid_t server = 0;
  ASSERT_TRUE(system_tests::WaitUntil([&] {
    Tansy::Tests::StopProcess(program.GetPid());
    const std::vector<pid_t> children = Tansy::Tests::ChildrenOf(program.GetPid());
    server = children.empty() || !Tansy::Tests::IsAlive(children.front()) ? 0 : children.front();
    if (server == 0) {
      program.Signal(SIGCONT);
    }
    return server != 0;
  })) << program.Errors();
  program.Signal(SIGKILL);
  program.WaitForEnd();
  EXPECT_TRUE(system_tests::WaitUntil([server] { return !Tansy::Tests::IsAlive(server); }));
  ::kill(server, SIGKILL);
}

}  // namespace
}  // namespace prove
