#include "Parallel.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <utility>

#include "Output.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::size_t kWorkers = 4;

struct Result {
  bool done = false;
  std::string text;
  std::optional<CFailure> failure;
};

Result Try(const std::function<std::string(std::size_t)>& work, std::size_t number) {
  Result result;
  result.done = true;
  try {
    result.text = work(number);
  } catch (const CFailure& failure) {
    result.failure = failure;
  } catch (const std::exception& exception) {
    result.failure = CFailure(kExitFailed, exception.what(), "");
  }
  return result;
}

// Lets an exception that is no CFailure name its thing.
std::string WorkOn(const std::function<std::string(const std::string&)>& work, const std::string& thing) {
  try {
    return work(thing);
  } catch (const CFailure&) {
    throw;
  } catch (const std::exception& exception) {
    throw CFailure(kExitFailed, Printable(thing) + ": " + exception.what(), "");
  }
}

// Prints each finished result once all results before it have been printed, and forgets it then: there may be millions.
class CPrinter {
 public:
  void Take(std::size_t index, Result result) {
    const std::lock_guard lock(mutex_);
    results_.resize(std::max(results_.size(), index - printed_ + 1));
    results_[index - printed_] = std::move(result);
    while (!results_.empty() && results_.front().done) {
      const Result next = std::move(results_.front());
      results_.pop_front();
      ++printed_;
      Print(next);
    }
  }

  int ExitCode() const { return exit_code_; }

 private:
  void Print(const Result& result) {
    if (result.failure) {
      Fail(*result.failure);
    } else if (!result.text.empty()) {
      try {
        PrintLine(result.text);
      } catch (const CFailure& failure) {
        Fail(failure);
      }
    }
  }

  void Fail(const CFailure& failure) {
    PrintFailure(failure);
    exit_code_ = exit_code_ == kExitDone ? failure.GetExitCode() : exit_code_;
  }

  std::mutex mutex_;            // guards what follows
  std::deque<Result> results_;  // from the first one that has not been printed
  std::size_t printed_ = 0;
  int exit_code_ = kExitDone;
};

}  // namespace
}  // namespace details

int ForEach(const std::vector<std::string>& things, const std::function<std::string(const std::string& thing)>& work) {
  CTeam team(details::kWorkers);
  return ForEachNumber(things.size(), team, [&](std::size_t number) { return details::WorkOn(work, things[number]); });
}

int ForEachNumber(std::size_t count, CTeam& team, const std::function<std::string(std::size_t number)>& work) {
  details::CPrinter printer;
  std::atomic<std::size_t> next{0};
  team.Together(count, [&](const std::atomic<bool>& stop) {
    for (std::size_t number = next++; number < count && !stop; number = next++) {
      printer.Take(number, details::Try(work, number));
    }
  });
  return printer.ExitCode();
}

void PrintFailure(const CFailure& failure) {
  if (failure.IsSilent()) {
    return;
  }
  const std::string& advice = failure.GetAdvice();
  PrintNote(std::string("tansy: ") + failure.what() + (advice.empty() ? "" : "\n  " + advice));
}

}  // namespace Tansy::Cli
