#include "Persistence.h"

#include <algorithm>
#include <cstdint>
#include <thread>

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::chrono::seconds kLongestOutage{30};
constexpr std::chrono::milliseconds kFirstPause{200};
constexpr std::chrono::milliseconds kLongestPause{2000};
constexpr std::chrono::milliseconds kSlice{50};  // a pause is made of slices, because somebody may stop it
constexpr int kMostRefusals = 3;

// Returns true when the connection broke, also in the middle of an answer, or when there was none: the server may be
// back soon.
bool IsOutage(const LinkOutcome& outcome) {
  using TansyNet::HttpClient;
  const std::int32_t kind = outcome.error.kind;
  return kind == HttpClient::kConnect || kind == HttpClient::kSend || kind == HttpClient::kReceive ||
         kind == HttpClient::kTimeout || (kind == HttpClient::kBadAnswer && outcome.answer.status != 0);
}

// Returns true when the server has more work than it can do, because that passes.
bool IsBusy(const LinkOutcome& outcome) {
  return outcome.answer.status == 408 || outcome.answer.status == 503;
}

// Returns true when the server could not do it now. A full disk does not count, because asking again does not empty it.
bool IsPassing(const LinkOutcome& outcome) {
  return outcome.answer.status >= 500 && !MeansFullServer(outcome.answer.status, outcome.ErrorCode());
}

}  // namespace
}  // namespace details

bool CPersistence::GoesOn(const LinkOutcome& outcome) {
  if (!outcome.IsAnswered()) {
    if (!details::IsOutage(outcome)) {
      return false;
    }
  } else if (!details::IsBusy(outcome)) {
    if (!details::IsPassing(outcome) || ++refusals_ >= details::kMostRefusals) {
      return false;
    }
  }
  const auto now = std::chrono::steady_clock::now();
  first_failure_ = first_failure_.value_or(now);
  return now - *first_failure_ < details::kLongestOutage && Pause();
}

void CPersistence::Forget() {
  first_failure_.reset();
  pause_ = std::chrono::milliseconds{0};
  refusals_ = 0;
}

LinkOutcome Persist(const std::function<LinkOutcome()>& attempt,
                    const std::function<bool(const LinkOutcome& outcome)>& is_to_be_repeated,
                    const std::atomic<bool>* stop) {
  CPersistence persistence(stop);
  LinkOutcome outcome = attempt();
  while (is_to_be_repeated(outcome) && persistence.GoesOn(outcome)) {
    outcome = attempt();
  }
  return outcome;
}

LinkOutcome TryPatiently(const CServerLink& link, const LinkRequest& request, EPatience patience,
                         const std::atomic<bool>* stop) {
  return Persist([&] { return link.Try(request); },
                 [&](const LinkOutcome& outcome) { return !outcome.IsDone() && patience == EPatience::kMuch; }, stop);
}

bool CPersistence::Pause() {
  pause_ = std::clamp(pause_ * 2, details::kFirstPause, details::kLongestPause);
  for (auto waited = std::chrono::milliseconds{0}; waited < pause_; waited += details::kSlice) {
    if (stop_ != nullptr && *stop_) {
      return false;
    }
    std::this_thread::sleep_for(details::kSlice);
  }
  return true;
}

}  // namespace Tansy::Cli
