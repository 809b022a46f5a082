#include "TransferOptions.h"

#include <charconv>
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

}  // namespace
}  // namespace details

std::vector<OptionSpec> WithTransferOptions(std::vector<OptionSpec> options) {
  options.push_back({"--jobs", "N", "how many files, or parts of a large one, go at the same time [4]"});
  options.push_back({"--limit-rate", "RATE", "at most so many bytes per second, such as 500K or 2M"});
  return options;
}

std::size_t JobsOf(const CommandCall& call) {
  if (!call.Has("--jobs")) {
    return details::kUsualJobs;
  }
  const std::string text = call.Option("--jobs");
  std::size_t jobs = 0;
  const char* const end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, jobs);
  if (error != std::errc{} || position != end || jobs < 1 || jobs > details::kMostJobs) {
    throw CFailure(kExitUsage, "--jobs \"" + Printable(text) + "\" is no number of jobs",
                   "give 1 to " + std::to_string(details::kMostJobs));
  }
  return jobs;
}

void ApplyRateLimit(const CommandCall& call) {
  if (call.Has("--limit-rate")) {
    LimitRate(ParseByteCount("--limit-rate", call.Option("--limit-rate")));
  }
}

}  // namespace Tansy::Cli
