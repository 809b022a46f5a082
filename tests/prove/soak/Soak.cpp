#include "Soak.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <thread>

#include "Load.h"
#include "fakes/TempFolder.h"
#include "support/Tansyd.h"
#include "support/TansydTest.h"

namespace prove {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kLook{100};
constexpr milliseconds kQuiet{300};  // nothing has become less for this time
constexpr milliseconds kPatience{60000};
constexpr double kMiB = 1024 * 1024;

// What is measured, in the order of the samples' values.
struct Quantity {
  const char* name;
  double resolution;
};
constexpr std::size_t kSpace = 3;
// Sanitizers keep freed memory for a while.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double kMemoryResolution = 1024;
#else
constexpr double kMemoryResolution = 6;
#endif
constexpr std::array<Quantity, 6> kQuantities = {{
    {"memory, MiB", kMemoryResolution},
    {"descriptors", 1},
    {"threads", 1},
    {"space that no row accounts for, bytes", 1},
    // Of the log's files up to a half may be gaps, and the last one grows to 64 MiB before anything is done about it.
    {"gaps in the body log, MiB", 64},
    // The server keeps up to 256 of them open for the next reader.
    {"open files of objects", 256},
}};
using Sample = std::array<double, kQuantities.size()>;

double StatusValue(pid_t pid, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name + ":", 0) == 0) {
      return std::stod(line.substr(name.size() + 1));
    }
  }
  return 0;
}

// How many descriptors are open of files in this folder (`are_in`), or of everything else.
double CountDescriptors(pid_t pid, const std::string& folder, bool are_in) {
  std::error_code error;
  double count = 0;
  for (auto item = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error);
       !error && item != std::filesystem::directory_iterator(); item.increment(error)) {
    const std::string target = std::filesystem::read_symlink(item->path(), error).string();
    count += !error && (target.rfind(folder, 0) == 0) == are_in ? 1 : 0;
    error.clear();
  }
  return count;
}

class CSoak {
 public:
  explicit CSoak(const SoakOptions& options)
      : options_(options),
        tansyd_(folder_.GetPath()),
        backend_(options.database, EStorage::kFolder, tansyd_.Data(), "") {
    for (const Quantity& quantity : kQuantities) {
      result_.measures.push_back({quantity.name, quantity.resolution, {}, {}});
    }
  }

  SoakResult Run() {
    system_tests::Launch launch;
    launch.program = options_.program;
    launch.with_https = true;
    launch.with_s3 = true;
    launch.arguments = {"--keep-failed", "1", "--keep-removed", "0"};
    launch.arguments.insert(launch.arguments.end(), backend_.GetArguments().begin(), backend_.GetArguments().end());
    launch.environment = {{"LEAK", options_.leak}};
    if (!tansyd_.Start(launch)) {
      result_.wrong = {"the server did not start"};
      return result_;
    }
    CLoad load(tansyd_, folder_.GetPath(), options_.seed);
    begin_ = steady_clock::now();
    for (std::size_t cycle = 0; cycle < options_.cycles || steady_clock::now() - begin_ < options_.time; ++cycle) {
      load.Work(options_.cycle, options_.with_big_ones);
      Note(cycle, Look());
    }
    result_.requests = load.GetRequests();
    result_.wrong = load.GetWrong();
    result_.hours = Hours();
    for (Measure& measure : result_.measures) {
      measure.slope = FitSlope(measure.points, measure.resolution);
    }
    if (!tansyd_.Stop()) {
      result_.wrong.push_back("the server did not stop");
    }
    return result_;
  }

 private:
  double Hours() const { return std::chrono::duration<double, std::ratio<3600>>(steady_clock::now() - begin_).count(); }

  // Waits until what the clients left has ended, and gives the least of each value: a leak does not end.
  Sample Look() {
    const auto begin = steady_clock::now();
    Sample least = LookOnce();
    for (auto quiet_since = begin; steady_clock::now() - begin < kPatience;) {
      const bool is_quiet = steady_clock::now() - quiet_since >= kQuiet;
      const bool is_space_given_back =
          least[kSpace] <= known_space_ || steady_clock::now() - begin >= options_.space_patience;
      if (is_quiet && is_space_given_back) {
        break;
      }
      std::this_thread::sleep_for(kLook);
      if (TakeLess(least, LookOnce())) {
        quiet_since = steady_clock::now();
      }
    }
    known_space_ = std::max(known_space_, least[kSpace]);
    return least;
  }

  static bool TakeLess(Sample& least, const Sample& now) {
    bool is_less = false;
    for (std::size_t i = 0; i < least.size(); ++i) {
      is_less = is_less || now[i] < least[i];
      least[i] = std::min(least[i], now[i]);
    }
    return is_less;
  }

  Sample LookOnce() {
    const pid_t pid = tansyd_.GetPid();
    const std::string objects = tansyd_.Data("objects");
    return {StatusValue(pid, "VmRSS") * 1024 / kMiB,
            CountDescriptors(pid, objects, false),
            StatusValue(pid, "Threads"),
            BytesWithoutRows("fs01"),
            BytesWithoutRows("lg01") / kMiB,
            CountDescriptors(pid, objects, true)};
  }

  // The bytes of a volume's files without those of the objects in it; 0 when space is not looked at.
  double BytesWithoutRows(const std::string& volume) {
    if (options_.space_patience.count() == 0) {
      return 0;
    }
    std::error_code error;
    double bytes = 0;
    for (auto item = std::filesystem::recursive_directory_iterator(tansyd_.Data("objects/" + volume), error);
         !error && item != std::filesystem::recursive_directory_iterator(); item.increment(error)) {
      const bool is_file = item->is_regular_file(error);
      const std::uintmax_t size = is_file ? item->file_size(error) : 0;
      bytes += error ? 0 : static_cast<double>(size);
      error.clear();
    }
    // What S3 made of parts has the bytes of its parts.
    const std::string in_volume = " WHERE url LIKE '" + volume + "%'";
    const std::vector<std::string> rows =
        backend_.Query("SELECT COALESCE(SUM(size), 0) FROM (SELECT size FROM local_object" + in_volume +
                       " UNION ALL SELECT size FROM local_upload_part" + in_volume + ") sizes");
    return bytes - (rows.empty() ? 0 : std::stod(rows.front()));
  }

  void Note(std::size_t cycle, const Sample& sample) {
    std::ostringstream line;
    line << "cycle " << cycle << (cycle < options_.warm_up ? " (warm-up)" : "");
    for (std::size_t i = 0; i < sample.size(); ++i) {
      if (cycle >= options_.warm_up) {
        result_.measures[i].points.push_back({Hours(), sample[i]});
      }
      line << "; " << result_.measures[i].name << ": " << sample[i];
    }
    if (options_.report) {
      options_.report(line.str());
    }
  }

  const SoakOptions& options_;
  const Tansy::Tests::CTempFolder folder_;
  system_tests::CTansyd tansyd_;
  const CBackend backend_;
  steady_clock::time_point begin_;
  double known_space_ = 0;  // that is not waited for any more
  SoakResult result_;
};

}  // namespace

std::vector<std::string> SoakResult::Growing() const {
  std::vector<std::string> names;
  for (const Measure& measure : measures) {
    if (measure.slope.IsGrowth()) {
      names.push_back(measure.name);
    }
  }
  return names;
}

SoakResult RunSoak(const SoakOptions& options) {
  return CSoak(options).Run();
}

std::string Describe(const SoakResult& result) {
  std::ostringstream text;
  text.precision(4);
  text << "soak: " << result.requests << " requests in " << result.hours * 60 << " minutes\n";
  for (const Measure& measure : result.measures) {
    text << "  " << measure.name << ": ";
    if (!measure.points.empty()) {
      text << measure.points.front().value << " at first, " << measure.points.back().value << " at last; ";
    }
    text << measure.slope.per_hour << " per hour, noise up to " << measure.slope.noise_per_hour << ": "
         << (measure.slope.IsGrowth() ? "GROWS" : "does not grow") << '\n';
  }
  for (const std::string& line : result.wrong) {
    text << "  " << line << '\n';
  }
  return text.str();
}

}  // namespace prove
