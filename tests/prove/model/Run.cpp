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
constexpr std::chrono::seconds kBetweenStepsOfNodes{5};
constexpr std::uint64_t kSmallLog = 1 << 20;  // heads, and the segment that grows
constexpr std::size_t kMostShown = 10;
// What a node remembers may be that much behind.
constexpr std::chrono::seconds kLag{1};

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
std::string Number(const CBackend& backend, const std::string& statement) {
  const std::vector<std::string> rows = backend.Query(statement);
  return rows.empty() || rows.front().empty() ? "0" : rows.front();
}

class CRun {
 public:
  CRun(const std::vector<IServer*>& servers, const RunOptions& options)
      : servers_(servers), options_(options), world_(servers, options.patience), observer_(world_, kClients) {
    if (servers.size() > 1) {
      world_.GetHistory().SetLag(std::chrono::nanoseconds(kLag).count());
    }
    for (int number = 0; number < kClients; ++number) {
      clients_.push_back(std::make_unique<CClient>(world_, number));
    }
  }

  RunResult Run() {
    for (IServer* server : servers_) {
      if (!server->Start()) {
        result_.wrong = {"a server did not start"};
        return result_;
      }
    }
    if (!MakeLastingBucket()) {
      result_.wrong = {"no bucket could be made"};
      return result_;
    }
    world_.StepClock(0);
    const auto end = std::chrono::steady_clock::now() + options_.time;
    while (result_.wrong.empty() &&
           (options_.time.count() > 0 ? std::chrono::steady_clock::now() < end : result_.rounds < options_.rounds)) {
      DoRound(MakeRound(options_.seed, result_.rounds, options_.features));
      ++result_.rounds;
    }
    result_.operations = world_.GetHistory().GetCount();
    result_.pictures = world_.GetPictures().size();
    result_.busy = world_.GetBusy();
    result_.live_bytes = LiveBytes();
    return result_;
  }

 private:
  bool MakeLastingBucket() {
    const system_tests::Request request =
        system_tests::Signed({"PUT", "/" + kLastingBucket, {}, "<CreateBucketConfiguration/>"});
    IServer& server = *servers_.front();
    return system_tests::Call(server.GetObjectPort(), request, server.GetConnectOptions()).status == 200;
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
    const bool is_for_all = IsForAll(round);
    EndServers(round);
    if (!is_for_all) {
      StartAgain();
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    world_.EndUnknownOnes();
    StepClock(round.clock_step);
    if (is_for_all) {
      StartAgain();
    }
    if (!result_.wrong.empty()) {
      return;
    }
    if (options_.features.buckets && has_restarted_) {
      observer_.FindPassingBucket();
    }
    if (servers_.size() > 1) {
      std::this_thread::sleep_for(kLag);  // from then on all nodes agree
    }
    observer_.LookAtEverything(Buckets());
    Judge();
  }

  // Of one that goes on nothing ends.
  bool IsForAll(const Round& round) const {
    return servers_.size() == 1 || round.ends_all || (round.end == EEnd::kDatabase && HasDatabase());
  }
  bool HasDatabase() const { return options_.backend != nullptr && options_.backend->HasDatabaseServer(); }

  // Starts what has ended, and waits until a database that crashed is used again.
  void StartAgain() {
    has_restarted_ = false;
    for (int node = 0; node < world_.GetNodes(); ++node) {
      if (!world_.IsEnding(node)) {
        continue;
      }
      const bool has_ended = !is_running_[static_cast<std::size_t>(node)];
      if (has_ended && !world_.GetServer(node).Start()) {
        result_.wrong.push_back("server " + std::to_string(node) + " did not start again");
        return;
      }
      has_restarted_ = has_restarted_ || has_ended;
      is_running_[static_cast<std::size_t>(node)] = true;
      if (has_crashed_ && !system_tests::WaitUntil([&] { return CanWrite(world_.GetServer(node)); })) {
        result_.wrong.push_back("server " + std::to_string(node) + " does not find its database again");
        return;
      }
      world_.SetEnding(node, false);
    }
    has_crashed_ = false;
  }

  static bool CanWrite(const IServer& server) {
    for (const char* method : {"PUT", "DELETE"}) {
      const system_tests::Request request = system_tests::Signed({method, "/" + kLastingBucket + "/probe", {}, ""});
      if (system_tests::Call(server.GetObjectPort(), request, server.GetConnectOptions()).status != 200) {
        return false;
      }
    }
    return true;
  }

  void StepClock(std::int64_t seconds) {
    if (seconds != 0) {
      world_.StepClock(seconds);
      result_.latest_clock = std::max(result_.latest_clock, world_.GetClock());
    }
  }

  void EndServers(const Round& round) {
    if (round.end == EEnd::kGoOn) {
      return;
    }
    const int chosen = static_cast<int>(round.place) % world_.GetNodes();
    const bool is_for_all = IsForAll(round);
    for (int node = 0; node < world_.GetNodes(); ++node) {
      world_.SetEnding(node, is_for_all || node == chosen || world_.IsEnding(node));
    }
    has_crashed_ = round.end == EEnd::kDatabase && HasDatabase();
    if (has_crashed_) {
      options_.backend->CrashDatabase();
      ++result_.crashes;
    }
    // A database that crashes leaves its servers alive, or takes them with it.
    for (int node = 0; node < world_.GetNodes() && (!has_crashed_ || round.ends_all); ++node) {
      if (world_.IsEnding(node)) {
        EndServer(node, round.end);
      }
    }
    if (has_crashed_) {
      options_.backend->StartDatabase();  // whose commit is in doubt waits for it
    }
  }

  void EndServer(int node, EEnd end) {
    is_running_[static_cast<std::size_t>(node)] = false;
    if (end != EEnd::kStop) {
      world_.GetServer(node).Kill();
      ++result_.kills;
    } else {
      ++result_.stops;
      if (!world_.GetServer(node).Stop()) {
        result_.wrong.push_back("a server did not stop in time");
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

  const std::vector<IServer*> servers_;
  const RunOptions& options_;
  mutable CWorld world_;
  std::vector<bool> is_running_ = std::vector<bool>(servers_.size(), true);
  bool has_crashed_ = false;    // the database
  bool has_restarted_ = false;  // a server, at the last end
  CClient observer_;
  std::vector<std::unique_ptr<CClient>> clients_;
  RunResult result_;
};

// What does not agree now: catalogue, store, and what the clients know of.
std::vector<std::string> CompareSpace(const std::vector<CTansydServer*>& servers, const CBackend& backend,
                                      const RunResult& run) {
  std::vector<std::string> wrong;
  const auto expect = [&wrong](const std::string& what, const std::string& is, const std::string& must_be) {
    if (is != must_be) {
      wrong.push_back(what + ": " + is + " instead of " + must_be);
    }
  };
  // The bytes of what S3 made of parts are those of its parts.
  const auto stored_in = [&backend](const std::string& volume) {
    return Number(backend, "SELECT COALESCE(SUM(size), 0) FROM (SELECT size FROM local_object WHERE url LIKE '" +
                               volume + "%' UNION ALL SELECT size FROM local_upload_part WHERE url LIKE '" + volume +
                               "%') AS stored");
  };
  expect("bytes of all objects, by their rows", Number(backend, "SELECT COALESCE(SUM(size), 0) FROM local_object"),
         std::to_string(run.live_bytes));
  if (!backend.GetObjectsFolder().empty()) {
    expect("bytes of the files of objects", std::to_string(BytesBelow(backend.GetObjectsFolder() + "/fs01")),
           stored_in("fs01"));
    const std::uint64_t live = std::stoull(stored_in("lg01"));
    const std::uint64_t log = BytesBelow(backend.GetObjectsFolder() + "/lg01");
    if (log > 2 * live + kSmallLog) {
      wrong.push_back("the body log has " + std::to_string(log) + " bytes for objects of " + std::to_string(live));
    }
  }
  expect("parts of uploads that nobody completes", Number(backend, "SELECT COUNT(*) FROM local_object_task"), "0");
  expect("uploads by S3 that nobody completes", Number(backend, "SELECT COUNT(*) FROM local_upload"), "0");
  for (CTansydServer* server : servers) {
    expect("bytes of first parts", std::to_string(BytesBelow(server->GetTansyd().Data("localstoragetmp"))), "0");
  }
  const system_tests::Ended checked = servers.front()->Check(backend.GetArguments());
  if (checked.code != 0) {
    wrong.push_back("tansyd --check finds something: " + checked.out + checked.err);
  }
  return wrong;
}

}  // namespace

RunResult RunModel(const std::vector<IServer*>& servers, const RunOptions& options) {
  return CRun(servers, options).Run();
}

std::vector<std::string> CheckSpace(const std::vector<CTansydServer*>& servers, const CBackend& backend,
                                    const RunResult& run) {
  // Every upload that nobody has completed becomes older than three days, and is swept at the start.
  for (CTansydServer* server : servers) {
    if (!server->Stop()) {
      return {"a server did not stop at the end"};
    }
  }
  if (servers.size() > 1) {
    backend.AgeUploads();
  }
  for (CTansydServer* server : servers) {
    server->SetClock(run.latest_clock + kSweepSeconds);
    if (!server->Start()) {
      return {"a server did not start at the end"};
    }
  }
  std::vector<std::string> wrong;
  auto next_step = std::chrono::steady_clock::now();
  system_tests::WaitUntil([&] {
    if (const auto now = std::chrono::steady_clock::now(); now >= next_step) {
      // A node takes its lease for over when more than some seconds pass at once, and does nothing for all until it has
      // renewed it.
      next_step = now + (servers.size() > 1 ? kBetweenStepsOfNodes : std::chrono::seconds(0));
      for (CTansydServer* server : servers) {
        server->LetTimePass(kHousekeepingSeconds);
      }
    }
    wrong = CompareSpace(servers, backend, run);
    return wrong.empty();
  });
  return wrong;
}

std::string Describe(const RunOptions& options, const RunResult& result) {
  std::ostringstream text;
  text << "model: seed " << options.seed << ", " << result.rounds << " rounds with " << result.kills << " kills, "
       << result.stops << " stops and " << result.crashes << " crashes of the database, " << result.operations
       << " operations, " << result.pictures << " pictures, " << result.busy << " answers of 503: "
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
