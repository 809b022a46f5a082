// The power fails at any moment of a random workload: whatever part of the unsynced operations the disk has kept, what
// was acknowledged is there and whole, and what was not is there and whole or not there.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Disk.h"
#include "Inspection.h"
#include "ProveFolder.h"
#include "RowHistory.h"
#include "Settings.h"
#include "Workload.h"
#include "support/TansydTest.h"

namespace prove {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kStatesOfATrace = 60;
constexpr int kStatesOfAShortRun = kIsSlow ? 20 : 120;
constexpr int kStatesOnPostgres = kIsSlow ? 10 : 30;  // of a short run
constexpr int kCutsOfANextRun = 5;
constexpr int kMostMoreRequests = 75;  // of each client, in long runs

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line + "\n";
  }
  return text;
}

class PowerCut : public testing::Test {
 protected:
  std::string TracePath() const { return folder_.GetPath() + "/calls.trace"; }

  using Work = std::function<void(system_tests::CTansyd& server, CTraceMarks& marks)>;

  // Does the works with one server after another on a fresh data folder, and leaves the trace behind and the data
  // folder as it was at the end.
  void RunRecorded(const std::vector<Work>& works, const std::string& plant = "") {
    CTraceMarks marks(TracePath());
    system_tests::CTansyd server(folder_.GetPath(), "recorded");
    std::filesystem::remove_all(server.Data());
    std::filesystem::create_directories(server.Data());
    system_tests::Launch launch = WatchedLaunch(server.Data());
    launch.environment["TANSY_CALLS_TRACE"] = TracePath();
    launch.environment["TANSY_CALLS_SYNC_MICROSECONDS"] = "1500";
    if (!plant.empty()) {
      launch.environment["TANSY_CALLS_PLANT"] = plant;
    }
    // Housekeeping looks every second, and frees what was replaced a second before.
    launch.arguments = {"--keep-failed", "1"};
    if (rows_) {
      AddDatabase(launch, rows_->BeginRecording(marks, "", plant == "answer-before-commit"));
    }
    bool has_started = true;
    for (std::size_t i = 0; i < works.size() && has_started; ++i) {
      has_started = server.Start(launch);
      if (has_started) {
        works[i](server, marks);
      }
      server.Kill();
      if (rows_) {
        rows_->WaitForLastCommit();
      }
    }
    if (rows_) {
      rows_->EndRecording();
    }
    ASSERT_TRUE(has_started);
  }
  static void AddDatabase(system_tests::Launch& launch, const std::string& url) {
    launch.arguments.insert(launch.arguments.end(), {"--database", url});
  }
  system_tests::Launch InspectionLaunch() const {
    system_tests::Launch launch = PlainLaunch();
    if (rows_) {
      AddDatabase(launch, rows_->GetStateUrl());
    }
    return launch;
  }
  // The second server finds what the first has left, and gives room back that the first could not give.
  void RunRecorded(WorkloadOptions workload, int runs, const std::string& plant = "") {
    std::vector<Work> works;
    for (; workload.run < runs; ++workload.run) {
      works.push_back([workload](system_tests::CTansyd& server, CTraceMarks& marks) {
        for (const std::string& surprise : RunWorkload(server, marks, workload)) {
          ADD_FAILURE() << surprise << "\n" << server.GetLog();
        }
      });
    }
    if (Settings::Get().IsLong()) {
      works.back() = [this, last = works.back()](system_tests::CTansyd& server, CTraceMarks& marks) {
        last(server, marks);
        WaitForHousekeeping();
      };
    }
    RunRecorded(works, plant);
  }
  // Until the server has nothing more to give back, or for a while: nobody asks it for anything meanwhile.
  void WaitForHousekeeping() const {
    constexpr std::chrono::seconds kQuiet{3};
    constexpr std::chrono::seconds kLongest{15};
    const auto begin = Clock::now();
    auto changed = begin;
    std::uintmax_t size = 0;
    while (Clock::now() - changed < kQuiet && Clock::now() - begin < kLongest) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      if (const std::uintmax_t now = std::filesystem::file_size(TracePath()); now != size) {
        size = now;
        changed = Clock::now();
      }
    }
  }

  // Cuts the power at random moments of the trace. Gives the first cut that broke a promise, as lines; empty: none.
  std::vector<std::string> CutOften(std::uint64_t seed, int states, int& done) {
    const CTrace trace(TracePath());
    const std::vector<Request> requests = ReadRequests(trace);
    std::mt19937_64 random(seed);
    const std::vector<std::size_t> positions = Positions(trace, states, random);
    CDisk disk(trace);
    CInspection inspection(folder_.GetPath() + "/state", InspectionLaunch());
    for (std::size_t i = 0; i < positions.size(); ++i) {
      const auto cut = static_cast<ECut>(random() % 5);
      disk.AdvanceTo(positions[i]);
      const Promises promises = PromisesAt(requests, positions[i]);
      const std::int64_t moment = rows_ ? CRowHistory::PickMoment(trace, positions[i], random) : 0;
      std::mt19937_64 once_more = random;
      MakeState(inspection, disk, cut, random, moment);
      std::vector<std::string> broken = inspection.Run(promises, {.starts_twice = i % 8 == 0});
      ++done;
      if (broken.empty() && i % 20 == 10) {
        MakeState(inspection, disk, cut, once_more, moment);
        broken = CutTheNextRun(inspection, promises, random, done);
      }
      if (!broken.empty()) {
        broken.insert(broken.begin(), "seed " + std::to_string(seed) + ", cut " + std::to_string(i) +
                                          " in front of record " + std::to_string(positions[i]) + " of " +
                                          std::to_string(trace.GetRecords().size()) + ", " + TextOf(cut) +
                                          (rows_ ? ", rows of change " + std::to_string(moment) : ""));
        broken.push_back(inspection.GetErrors());
        return broken;
      }
    }
    return {};
  }
  // What a server finds after a power cut.
  void MakeState(CInspection& inspection, const CDisk& disk, ECut cut, std::mt19937_64& random, std::int64_t moment) {
    inspection.Clear();
    disk.WriteTo(inspection.GetDataFolder(), cut, random);
    if (rows_) {
      rows_->MakeState(moment);
    }
  }

  // The power fails once more, while a server takes up what the first cut has left, or while it stops. This disk is not
  // made again from a trace that was kept, because a server runs in between.
  std::vector<std::string> CutTheNextRun(CInspection& inspection, const Promises& promises, std::mt19937_64& random,
                                         int& done) {
    const std::string path = folder_.GetPath() + "/next.trace";
    CTraceMarks marks(path);
    system_tests::Launch launch = WatchedLaunch(inspection.GetDataFolder());
    launch.environment["TANSY_CALLS_TRACE"] = path;
    launch.arguments = {"--keep-failed", "1"};
    CRowHistory next_rows("next_rows");
    if (rows_) {
      AddDatabase(launch, next_rows.BeginRecording(marks, CRowHistory::kState));
    }
    std::vector<std::string> broken = inspection.RunUntilStopped(promises, launch);
    if (rows_) {
      next_rows.EndRecording();
    }
    const CTrace trace(path);
    CDisk disk(trace);
    for (const std::size_t position : Positions(trace, kCutsOfANextRun, random)) {
      if (!broken.empty()) {
        broken.insert(broken.begin(), "the cut before record " + std::to_string(position) + " of " +
                                          KeepFile(path, "power-next.trace"));
        break;
      }
      disk.AdvanceTo(position);
      inspection.Clear();
      disk.WriteTo(inspection.GetDataFolder(), static_cast<ECut>(random() % 5), random);
      if (rows_) {
        next_rows.MakeState(CRowHistory::PickMoment(trace, position, random));
      }
      broken = inspection.Run(promises, {});
      ++done;
    }
    return broken;
  }

  static std::vector<std::size_t> Positions(const CTrace& trace, int count, std::mt19937_64& random) {
    std::vector<std::size_t> positions;
    for (int i = 0; i < count; ++i) {
      positions.push_back(Position(trace, random));
    }
    std::sort(positions.begin(), positions.end());
    return positions;
  }
  // Half of the moments are right behind a sync or an answer, where a defect shows most easily.
  static std::size_t Position(const CTrace& trace, std::mt19937_64& random) {
    const auto& records = trace.GetRecords();
    const auto is_change = [](const Record& record) { return record.head.kind > ERecord::kFolderThere; };
    const auto first =
        static_cast<std::size_t>(std::find_if(records.begin(), records.end(), is_change) - records.begin());
    std::size_t position = first + random() % (records.size() - first + 1);
    const bool is_beside = random() % 2 == 0;
    const auto is_special = [](const Record& record) {
      // Most of what is sent to a database ends nothing.
      const bool is_answer = record.head.kind == ERecord::kMark && record.name.rfind("sent", 0) != 0;
      return record.head.kind == ERecord::kSyncEnds || is_answer;
    };
    while (is_beside && position > first && position < records.size() && !is_special(records[position - 1])) {
      ++position;
    }
    return position;
  }

  // The planted defect must be found. A picture has no row, so it is left out where a defect is about rows.
  void ExpectFound(const std::string& plant, bool has_pictures = true) {
    const Settings& settings = Settings::Get();
    int done = 0;
    for (int round = 0; round < 10; ++round) {
      const std::uint64_t seed = settings.seed * 100 + static_cast<std::uint64_t>(round);
      ASSERT_NO_FATAL_FAILURE(RunRecorded(
          {.seed = seed, .clients = 4, .requests = 10, .has_pictures = has_pictures, .big_bodies = 0}, 1, plant));
      const std::vector<std::string> broken = CutOften(seed, kStatesOfATrace, done);
      if (!broken.empty()) {
        std::cout << "found after " << done << " cuts: " << broken[1] << std::endl;
        return;
      }
    }
    FAIL() << plant << " was not found by " << done << " cuts, seed " << settings.seed;
  }

  // The test that can be long.
  void CutManyWorkloads(int states_of_a_short_run);

  const CProveFolder folder_;
  std::unique_ptr<CRowHistory> rows_;  // null: the rows are in a file of the disk
};

class PowerCutOnPostgres : public PowerCut {
 protected:
  PowerCutOnPostgres() { rows_ = std::make_unique<CRowHistory>("rows"); }
};

void PowerCut::CutManyWorkloads(int states_of_a_short_run) {
  const Settings& settings = Settings::Get();
  const auto end = Clock::now() + std::chrono::minutes(settings.minutes);
  std::cout << "seed " << settings.seed << std::endl;
  const int wanted = settings.states > 0 ? settings.states : settings.minutes > 0 ? 0 : states_of_a_short_run;
  int done = 0;
  for (int round = 0; done < wanted || Clock::now() < end; ++round) {
    const bool is_replay = !settings.trace.empty();
    const std::uint64_t seed = is_replay ? settings.seed : settings.seed * 100000 + static_cast<std::uint64_t>(round);
    if (!is_replay) {
      WorkloadOptions workload = {.seed = seed};
      if (settings.IsLong()) {
        workload.requests += static_cast<int>(seed * 7919 % kMostMoreRequests);
      }
      ASSERT_NO_FATAL_FAILURE(RunRecorded(workload, 2));
    } else {
      std::filesystem::copy_file(settings.trace, TracePath(), std::filesystem::copy_options::overwrite_existing);
      if (rows_) {
        rows_->Load(settings.trace + ".rows");
      }
    }
    const int states = settings.minutes > 0 ? kStatesOfATrace : std::min(kStatesOfATrace, wanted - done);
    const std::vector<std::string> broken = CutOften(seed, states, done);
    if (!broken.empty()) {
      const std::string kept = KeepFile(TracePath(), "power-" + std::to_string(seed) + ".trace");
      if (rows_) {
        rows_->Save(kept + ".rows");
      }
      FAIL() << Joined(broken) << "the trace is kept: " << kept << "\nthe same again: --trace " << kept << " --seed "
             << seed << " --states " << states << (rows_ ? " --database postgresql" : "");
    }
    ForgetBodies();
    if (settings.minutes > 0) {
      std::cout << done << " disks, all as promised" << std::endl;
    }
  }
  std::cout << done << " disks, all as promised" << std::endl;
}

TEST_F(PowerCut, EveryDiskKeepsWhatWasPromised) {
  CutManyWorkloads(kStatesOfAShortRun);
}

// The rows are those of a moment of the trace; PostgreSQL's own disk loses nothing.
TEST_F(PowerCutOnPostgres, EveryDiskKeepsWhatWasPromised) {
  CutManyWorkloads(kStatesOnPostgres);
}

// The folder of first parts is made for the first of them.
TEST_F(PowerCut, TheFirstPartOfAFreshServerSurvives) {
  ASSERT_NO_FATAL_FAILURE(RunRecorded({[](system_tests::CTansyd& server, CTraceMarks& marks) {
    EXPECT_EQ(Send(server, marks, {.number = 1, .kind = ERequest::kBucket, .key = "b", .body = "made"}), "200");
    std::string task;
    EXPECT_EQ(Send(server, marks, {.number = 2, .kind = ERequest::kBegin, .key = "o"}, &task), "200");
    const std::string body = BodySpec(1, 5000);
    EXPECT_EQ(
        Send(server, marks, {.number = 3, .kind = ERequest::kPart, .key = "o", .body = body, .task = task, .part = 1}),
        "200");
  }}));
  const CTrace trace(TracePath());
  CDisk disk(trace);
  disk.AdvanceTo(trace.GetRecords().size());
  CInspection inspection(folder_.GetPath() + "/state", PlainLaunch());
  std::mt19937_64 random(1);
  disk.WriteTo(inspection.GetDataFolder(), ECut::kAllLost, random);
  const Promises promises = PromisesAt(ReadRequests(trace), trace.GetRecords().size());
  EXPECT_EQ(promises.tasks.size(), 1U);
  EXPECT_EQ(Joined(inspection.Run(promises, {})), "") << inspection.GetErrors();
}

// The same for defects that are put in on purpose.
TEST_F(PowerCut, FindsThatBodiesAreNotSynced) {
  ExpectFound("no-body-sync");
}
TEST_F(PowerCut, FindsThatFoldersAreNotSynced) {
  ExpectFound("no-folder-sync");
}
TEST_F(PowerCut, FindsThatTheCatalogueIsNotSynced) {
  ExpectFound("no-catalogue-sync");
}
TEST_F(PowerCut, FindsARowBeforeItsBytes) {
  ExpectFound("row-before-bytes", false);
}
TEST_F(PowerCut, FindsAnAnswerBeforeItsCommit) {
  ExpectFound("answer-before-commit");
}

TEST_F(PowerCutOnPostgres, FindsThatBodiesAreNotSynced) {
  ExpectFound("no-body-sync");
}
TEST_F(PowerCutOnPostgres, FindsThatFoldersAreNotSynced) {
  ExpectFound("no-folder-sync");
}
TEST_F(PowerCutOnPostgres, FindsARowBeforeItsBytes) {
  ExpectFound("row-before-bytes", false);
}
TEST_F(PowerCutOnPostgres, FindsAnAnswerBeforeItsCommit) {
  ExpectFound("answer-before-commit");
}

// What the tables held after each request of a run is found again, forwards and backwards.
TEST_F(PowerCutOnPostgres, TheRowsOfEachMomentAreKnown) {
  std::map<std::int64_t, std::string> seen;
  ASSERT_NO_FATAL_FAILURE(RunRecorded({[&](system_tests::CTansyd& server, CTraceMarks& marks) {
    const std::string body = BodySpec(1, 300);
    std::string task;
    std::size_t number = 0;
    const auto send = [&](Request request) {
      request.number = ++number;
      EXPECT_EQ(Send(server, marks, request, &task), "200");
      seen.insert(rows_->LookNow());
    };
    send({.kind = ERequest::kBucket, .key = "b", .body = "made"});
    for (const std::string key : {"o", "p", "o"}) {
      send({.kind = ERequest::kPut, .key = key, .body = body});
    }
    send({.kind = ERequest::kRemove, .key = "o"});
    send({.kind = ERequest::kBegin, .key = "q"});
    const std::string begun = task;
    send({.kind = ERequest::kPart, .key = "q", .body = body, .task = begun, .part = 1});
    send({.kind = ERequest::kComplete, .key = "q", .body = body, .task = begun});
  }}));
  const CTrace trace(TracePath());
  const std::vector<std::int64_t> moments = CRowHistory::MomentsOf(trace);
  EXPECT_GE(seen.size(), 8U);
  std::vector<std::string> texts;
  for (auto moment = moments.rbegin(); moment != moments.rend(); ++moment) {
    texts.push_back(rows_->RowsAt(*moment));
  }
  for (const auto& [moment, text] : seen) {
    EXPECT_EQ(std::count(moments.begin(), moments.end(), moment), 1) << moment;
    EXPECT_EQ(rows_->RowsAt(moment), text);
  }
  for (const std::int64_t moment : moments) {
    EXPECT_EQ(rows_->RowsAt(moment), texts.back());
    texts.pop_back();
  }
  // So it is in a history that was kept.
  rows_->Save(TracePath() + ".rows");
  CRowHistory kept("kept_rows");
  kept.Load(TracePath() + ".rows");
  for (const auto& [moment, text] : seen) {
    EXPECT_EQ(kept.RowsAt(moment), text);
  }
}

// Nothing that changes files escapes the recorder: a disk that has kept everything is the folder itself.
TEST_F(PowerCut, TheTraceHoldsEveryChange) {
  ASSERT_NO_FATAL_FAILURE(RunRecorded({.seed = 1, .clients = 4, .requests = 15}, 2));
  const std::string copy = folder_.GetPath() + "/copy";
  std::filesystem::create_directories(copy);
  const CTrace trace(TracePath());
  CDisk disk(trace);
  disk.AdvanceTo(trace.GetRecords().size());
  std::mt19937_64 random(1);
  disk.WriteTo(copy, ECut::kAllKept, random);
  const std::map<std::string, std::string> expected = FilesOf(folder_.GetPath() + "/recorded");
  const std::map<std::string, std::string> found = FilesOf(copy);
  EXPECT_GT(expected.size(), 20U);
  for (const auto& [name, content] : expected) {
    // SQLite changes this one in memory; it holds nothing that has to survive.
    if (!name.ends_with("-shm")) {
      EXPECT_TRUE(found.count(name) > 0 && found.at(name) == content) << name << ", " << content.size() << " bytes";
    }
  }
  for (const auto& [name, content] : found) {
    EXPECT_EQ(expected.count(name), 1U) << name;
  }
}

}  // namespace
}  // namespace prove

int main(int argc, char** argv) {
  return prove::RunProve(argc, argv, "PowerCut.EveryDiskKeepsWhatWasPromised",
                         "PowerCutOnPostgres.EveryDiskKeepsWhatWasPromised");
}
