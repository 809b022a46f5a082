#include "OnlineCheck.h"

#include <exception>
#include <ostream>
#include <streambuf>
#include <string_view>
#include <utility>

#include "OSAL/Osal.h"
#include "StartFailure.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

// Takes what is written apart into lines. A check of a spoilt store may write millions of them, so only the first and
// the last are kept.
class CLines final : public std::streambuf {
 public:
  explicit CLines(COnlineCheck::State& state) : state_(state) {}

 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) {
      return traits_type::not_eof(c);
    }
    if (traits_type::to_char_type(c) == '\n') {
      EndLine();
    } else {
      line_ += traits_type::to_char_type(c);
    }
    return c;
  }

 private:
  void EndLine() {
    constexpr std::string_view kSummary = "check: ";
    if (line_.starts_with(kSummary)) {
      state_.summary = line_;
    } else {
      ++state_.findings;
      if (state_.first_findings.size() < COnlineCheck::kMostFindings) {
        state_.first_findings.push_back(line_);
      }
    }
    line_.clear();
  }

  COnlineCheck::State& state_;
  std::string line_;
};

}  // namespace
}  // namespace details

COnlineCheck::COnlineCheck(Run run) : run_(std::move(run)) {}

COnlineCheck::~COnlineCheck() {
  Stop();
}

void COnlineCheck::Stop() {
  is_stopping_ = true;
  const std::scoped_lock lock(start_mutex_);
  if (thread_.joinable()) {
    thread_.join();
  }
}

bool COnlineCheck::Start() {
  const std::scoped_lock start_lock(start_mutex_);
  {
    const std::scoped_lock lock(mutex_);
    if (state_.is_running || is_stopping_) {
      return false;
    }
  }
  if (thread_.joinable()) {
    thread_.join();  // it has ended but for its last step
  }
  {
    const std::scoped_lock lock(mutex_);
    state_ = {};
    state_.is_running = true;
    state_.started = TansyBase::TimeUtil::Now();
    looked_at_ = 0;
  }
  try {
    thread_ = std::thread([this] { Work(); });
  } catch (...) {
    const std::scoped_lock lock(mutex_);
    state_ = {};
    throw;
  }
  return true;
}

void COnlineCheck::Work() {
  OSAL_SetThreadName("tansyd-check");
  State found;
  details::CLines lines(found);
  std::ostream out(&lines);
  // It is asked for each row and each file, and so counts them.
  CheckOptions options;
  options.is_stopping = [this] {
    ++looked_at_;
    return is_stopping_.load();
  };
  try {
    found.exit_code = run_(options, out);
  } catch (const std::exception& error) {
    found.exit_code = kExitFailed;
    found.summary = error.what();
  }
  const std::scoped_lock lock(mutex_);
  found.started = state_.started;
  found.ended = TansyBase::TimeUtil::Now();
  state_ = std::move(found);
}

COnlineCheck::State COnlineCheck::Get() const {
  const std::scoped_lock lock(mutex_);
  State state = state_;
  state.looked_at = looked_at_;
  return state;
}

}  // namespace Tansy::Host
