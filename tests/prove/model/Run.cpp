#include "Run.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "Client.h"
#include "World.h"
#include "support/Http.h"
#include "support/Program.h"
#include "support/TansydTest.h"

namespace prove {
namespace {

constexpr std::int64_t kSweepSeconds = 4 * 24 * 3600;  // older than any upload may become
constexpr std::int64_t kHousekeepingSeconds = 120;     // two looks at first parts are that far apart
constexpr std::uint64_t kSmallLog = 1 << 20;           // heads, and the segment that grows
constexpr std::size_t kMostShown = 10;

std::uint64_t BytesBelow(const std::string& folder) {
  std::error_code error;  // files go meanwhile
  std::uint64_t bytes = 0;
  for (auto item = std::filesystem::recursive_directory_iterator(folder, error);
       !error && item != std::filesystem::recursive_directory_iterator(); item.increment(error)) {
    const std::uint64_t size = item->is_regular_file(error) ? item->file_size(error) : 0;
    bytes += error ? 0 : size;
    error.clear();
  }
  return bytes;
}

// The only value that a statement gives; "0" for none.
std::string Number(const std::string& database, const std::string& statement) {
  const std::vector<std::string> rows = system_tests::Query(database, statement);
  return rows.empty() || rows.front().empty() ? "0" : rows.front();
}

class CRun {
 public:
  CRun(IServer& server, const RunOptions& options)
      : server_(server), options_(options), world_(server, options.patience), observer_(world_, kClients) {
    for (int number = 0; number < kClients; ++number) {
      clients_.push_back(std::make_unique<CClient>(world_, number));
    }
  }

  RunResult Run() {
    if (!server_.Start() || !MakeLastingBucket()) {
      result_.wrong = {"the server did not start"};
      return result_;
    }
    const auto end = std::chrono::steady_clock::now() + options_.time;
    while (result_.wrong.empty() &&
           (options_.time.count() > 0 ? std::chrono::steady_clock::now() < end : result_.rounds < options_.rounds)) {
      DoRound(MakeRound(options_.seed, result_.rounds, options_.features));
      ++result_.rounds;
    }
    result_.operations = world_.GetHistory().GetCount();
    result_.pictures = world_.GetPictures().size();
    result_.live_bytes = LiveBytes();
    return result_;
  }

 private:
  bool MakeLastingBucket() {
    const system_tests::Request request =
        system_tests::Signed({"PUT", "/" + kLastingBucket, {}, "<CreateBucketConfiguration/>"});
    return system_tests::Call(server_.GetObjectPort(), request, server_.GetConnectOptions()).status == 200;
  }

  void DoRound(const Round& round) {
    const std::size_t before = world_.GetAnswers();
    std::atomic<int> at_work{kClients};
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < clients_.size(); ++i) {
      threads.emplace_back([this, i, &round, &at_work] {
        clients_[i]->Run(round.clients[i]);
        --at_work;
      });
    }
    const auto wait_for = [&](std::size_t answers) {
      while (at_work > 0 && (round.end == EEnd::kGoOn || world_.GetAnswers() - before < answers)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    };
    wait_for(round.answers / 2);
    StepClock(round.clock_step_while);
    wait_for(round.answers);
    EndServer(round.end);
    for (std::thread& thread : threads) {
      thread.join();
    }
    world_.EndUnknownOnes();
    StepClock(round.clock_step);
    if (round.end != EEnd::kGoOn && !StartAgain()) {
      return;
    }
    observer_.LookAtEverything(Buckets());
    Judge();
  }

  bool StartAgain() {
    if (!server_.Start()) {
      result_.wrong.push_back("the server did not start again");
      return false;
    }
    world_.SetEnding(false);
    if (options_.features.buckets) {
      observer_.FindPassingBucket();
    }
    return true;
  }

  void StepClock(std::int64_t seconds) {
    if (seconds != 0) {
      world_.StepClock(seconds);
      result_.latest_clock = std::max(result_.latest_clock, world_.GetClock());
    }
  }

  void EndServer(EEnd end) {
    if (end == EEnd::kGoOn) {
      return;
    }
    world_.SetEnding(true);
    if (end == EEnd::kKill) {
      server_.Kill();
      ++result_.kills;
    } else {
      ++result_.stops;
      if (!server_.Stop()) {
        result_.wrong.push_back("the server did not stop in time");
      }
    }
  }

  void Judge() {
    world_.EndUnknownOnes();
    const std::vector<std::string> wrong = world_.GetHistory().Check();
    result_.wrong.insert(result_.wrong.end(), wrong.begin(), wrong.end());
    if (!result_.wrong.empty() && !options_.history_file.empty()) {
      std::ofstream file(options_.history_file);
      file << "# seed " << options_.seed << ", round " << result_.rounds << "\n";
      world_.GetHistory().Save(file);
    }
    world_.GetHistory().Forget();
    world_.ForgetSizes();
  }

  std::vector<std::string> Buckets() const {
    return options_.features.buckets ? std::vector{kLastingBucket, kPassingBucket} : std::vector{kLastingBucket};
  }

  std::uint64_t LiveBytes() const {
    std::uint64_t bytes = 0;
    for (const std::string& bucket : Buckets()) {
      for (const std::string& key : KeysOf(bucket)) {
        const Contents contents = world_.GetHistory().GetContents(HistoryKey(bucket, key));
        const auto recipe = contents.size() == 1 ? world_.GetRecipes().Find(*contents.begin()) : std::nullopt;
        bytes += recipe ? recipe->size : 0;
      }
    }
    return bytes;
  }

  IServer& server_;
  const RunOptions& options_;
  mutable CWorld world_;
  CClient observer_;
  std::vector<std::unique_ptr<CClient>> clients_;
  RunResult result_;
};

// What does not agree now: catalogue, store, and what the clients know of.
std::vector<std::string> CompareSpace(CTansydServer& server, const RunResult& run) {
  std::vector<std::string> wrong;
  const auto expect = [&wrong](const std::string& what, const std::string& is, const std::string& must_be) {
    if (is != must_be) {
      wrong.push_back(what + ": " + is + " instead of " + must_be);
    }
  };
  const std::string database = server.GetTansyd().Data("catalogue.db");
  expect("bytes of all objects, by their rows", Number(database, "SELECT COALESCE(SUM(size), 0) FROM local_object"),
         std::to_string(run.live_bytes));
  expect("bytes of the files of objects", std::to_string(BytesBelow(server.GetTansyd().Data("objects/fs01"))),
         Number(database, "SELECT COALESCE(SUM(size), 0) FROM local_object WHERE url LIKE 'fs01%'"));
  const std::uint64_t live =
      std::stoull(Number(database, "SELECT COALESCE(SUM(size), 0) FROM local_object WHERE url LIKE 'lg01%'"));
  const std::uint64_t log = BytesBelow(server.GetTansyd().Data("objects/lg01"));
  if (log > 2 * live + kSmallLog) {
    wrong.push_back("the body log has " + std::to_string(log) + " bytes for objects of " + std::to_string(live));
  }
  expect("parts of uploads that nobody completes", Number(database, "SELECT COUNT(*) FROM local_object_task"), "0");
  expect("bytes of first parts", std::to_string(BytesBelow(server.GetTansyd().Data("localstoragetmp"))), "0");
  const system_tests::Ended checked = server.Check();
  if (checked.code != 0) {
    wrong.push_back("tansyd --check finds something: " + checked.out + checked.err);
  }
  return wrong;
}

}  // namespace

RunResult RunModel(IServer& server, const RunOptions& options) {
  return CRun(server, options).Run();
}

std::vector<std::string> CheckSpace(CTansydServer& server, const RunResult& run) {
  // Every upload that nobody has completed becomes older than three days, and is swept at the start.
  if (!server.Stop()) {
    return {"the server did not stop at the end"};
  }
  server.SetClock(run.latest_clock + kSweepSeconds);
  if (!server.Start()) {
    return {"the server did not start at the end"};
  }
  std::vector<std::string> wrong;
  system_tests::WaitUntil([&] {
    server.LetTimePass(kHousekeepingSeconds);
    wrong = CompareSpace(server, run);
    return wrong.empty();
  });
  return wrong;
}

std::string Describe(const RunOptions& options, const RunResult& result) {
  std::ostringstream text;
  text << "model: seed " << options.seed << ", " << result.rounds << " rounds with " << result.kills << " kills and "
       << result.stops << " stops, " << result.operations << " operations, " << result.pictures << " pictures: "
       << (result.wrong.empty() ? "all as it must be" : std::to_string(result.wrong.size()) + " contradictions")
       << '\n';
  for (std::size_t i = 0; i < std::min(result.wrong.size(), kMostShown); ++i) {
    text << "  " << result.wrong[i] << '\n';
  }
  if (!result.wrong.empty() && !options.history_file.empty()) {
    text << "  the history of the round is in " << options.history_file << '\n';
  }
  return text.str();
}

}  // namespace prove
