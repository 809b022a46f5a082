#include "TransferOptions.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string>

#include "ByteCount.h"
#include "Failure.h"
#include "Output.h"
#include "RateLimit.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::size_t kUsualJobs = 4;
constexpr std::size_t kMostJobs = 64;
constexpr std::uint64_t kLeastRatePerJob = std::uint64_t{16} << 10;

std::size_t ParseJobs(const CommandCall& call) {
  const std::string text = call.Option("--jobs");
  std::size_t jobs = 0;
  const char* const end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, jobs);
  if (error != std::errc{} || position != end || jobs < 1 || jobs > kMostJobs) {
    throw CFailure(kExitUsage, "--jobs \"" + Printable(text) + "\" is no number of jobs",
                   "give 1 to " + std::to_string(kMostJobs));
  }
  return jobs;
}

std::uint64_t RateOf(const CommandCall& call) {
  return ParseByteCount("--limit-rate", call.Option("--limit-rate"));
}

// With a small rate fewer go at the same time: each of them has to wait for all others, and a connection on which
// nothing comes for long is closed.
std::size_t JobsWithin(std::uint64_t rate, std::size_t jobs) {
  return static_cast<std::size_t>(std::clamp<std::uint64_t>(rate / kLeastRatePerJob, 1, jobs));
}

}  // namespace
}  // namespace details

std::vector<OptionSpec> WithTransferOptions(std::vector<OptionSpec> options) {
  options.push_back({"--jobs", "N", "how many files, or parts of large ones, go at the same time [4]"});
  options.push_back({"--limit-rate", "RATE", "at most so many bytes per second, such as 500K or 2M"});
  return options;
}

std::size_t JobsOf(const CommandCall& call) {
  const std::size_t jobs = call.Has("--jobs") ? details::ParseJobs(call) : details::kUsualJobs;
  return call.Has("--limit-rate") ? details::JobsWithin(details::RateOf(call), jobs) : jobs;
}

void ApplyRateLimit(const CommandCall& call) {
  if (call.Has("--limit-rate")) {
    LimitRate(details::RateOf(call));
  }
}

}  // namespace Tansy::Cli
