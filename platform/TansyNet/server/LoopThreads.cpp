#include "TansyNet/server/LoopThreads.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

namespace TansyNet {
namespace details {
namespace {

constexpr std::chrono::milliseconds kLookEvery{5};
// After so many looks without a new loan, the follower sleeps.
constexpr int kLooksBeforeSleep = 20;
constexpr int kCountBits = 16;
// A callback that is slow after so many quick ones says little about the next.
constexpr std::uint64_t kManyLoans = 1000;

std::int64_t NowMs() {
  using std::chrono::steady_clock;
  return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace
}  // namespace details

thread_local const CLoopThreads* CLoopThreads::led_by_this_thread = nullptr;
thread_local bool CLoopThreads::is_thread_lent = false;

CLoopThreads::CLoopThreads(std::function<void()> enter, std::function<bool()> run_one)
    : enter_(std::move(enter)), run_one_(std::move(run_one)) {}

CLoopThreads::~CLoopThreads() = default;

void CLoopThreads::Start() {
  const std::scoped_lock lock(mutex_);
  threads_.reserve(kThreads);
  try {
    while (threads_.size() < kThreads) {
      threads_.emplace_back([this] { Serve(); });
    }
  } catch (const std::exception&) {
    if (threads_.empty()) {
      throw;
    }
  }
}

void CLoopThreads::Join() {
  for (std::thread& thread : threads_) {
    thread.join();
  }
  threads_.clear();
}

void CLoopThreads::Serve() {
  enter_();
  Lock lock(mutex_);
  while (!has_ended_) {
    const bool is_first = !std::exchange(has_leader_, true);
    if (is_first || Follow(lock)) {
      lock.unlock();
      const bool has_ended = !Lead();
      lock.lock();
      if (has_ended) {
        has_ended_ = true;
        changed_.notify_all();
      }
    }
  }
}

// Runs the loop. Returns false when it has ended, and true when another thread has taken the lead.
bool CLoopThreads::Lead() {
  led_by_this_thread = this;
  while (led_by_this_thread == this) {
    if (!run_one_()) {
      const bool is_mine = led_by_this_thread == this;
      led_by_this_thread = nullptr;
      return !is_mine;
    }
  }
  return true;
}

// Waits until there is something to lead. Returns true when this thread has taken the lead.
bool CLoopThreads::Follow(Lock& lock) {
  changed_.wait(lock, [this] { return !has_watch_ || has_ended_; });
  has_watch_ = true;
  std::uint64_t seen = loans_made_;
  int idle_looks = 0;
  bool has_lead = false;
  while (!has_ended_ && !has_lead) {
    if (idle_looks >= details::kLooksBeforeSleep) {
      is_asleep_ = true;
      // A loan that began before this thread said that it sleeps is seen here; a later one wakes it.
      changed_.wait(lock, [&] { return has_ended_ || !is_asleep_ || loans_made_ != seen; });
      is_asleep_ = false;
      idle_looks = 0;
      continue;
    }
    changed_.wait_for(lock, details::kLookEvery, [this] { return has_ended_; });
    has_lead = !has_ended_ && TakeLead(details::NowMs());
    const std::uint64_t made = loans_made_;
    idle_looks = made == seen && loan_ == 0 ? idle_looks + 1 : 0;
    seen = made;
  }
  has_watch_ = false;
  changed_.notify_all();  // one of the other followers is on watch from now on
  return has_lead;
}

bool CLoopThreads::TakeLead(std::int64_t now) {
  std::uint64_t loan = loan_;
  if (loan == 0 || now - static_cast<std::int64_t>(loan >> details::kCountBits) < kPatienceMs) {
    return false;
  }
  // From here on the old leader finds that its loan has ended without it.
  if (!loan_.compare_exchange_strong(loan, 0)) {
    return false;
  }
  const std::uint64_t made = loans_made_;
  const bool is_rare = made - std::exchange(loans_at_loss_, made) > details::kManyLoans;
  pause_ms_ = is_rare ? kShortestPauseMs : std::min(2 * pause_ms_, kLongestPauseMs);
  no_loan_before_ = now + pause_ms_;
  return true;
}

std::uint64_t CLoopThreads::BeginLoan() {
  const std::int64_t now = details::NowMs();
  if (!IsLeader() || !has_watch_ || now < no_loan_before_ || loan_ != 0) {
    return 0;
  }
  const std::uint64_t count = loans_made_ + 1;
  const std::uint64_t mask = (std::uint64_t{1} << details::kCountBits) - 1;
  const std::uint64_t loan = (static_cast<std::uint64_t>(now) << details::kCountBits) | (count & mask);
  loan_ = loan;
  loans_made_ = count;
  is_thread_lent = true;
  if (is_asleep_) {
    {
      const std::scoped_lock lock(mutex_);
      is_asleep_ = false;
    }
    changed_.notify_all();
  }
  return loan;
}

void CLoopThreads::EndLoan(std::uint64_t loan) {
  if (loan == 0) {
    return;
  }
  is_thread_lent = false;
  if (!loan_.compare_exchange_strong(loan, 0)) {
    led_by_this_thread = nullptr;  // another thread has taken the lead
  }
}

CLoopThreads::CLoan::CLoan(CLoopThreads& threads) : threads_(threads), loan_(threads.BeginLoan()) {}

CLoopThreads::CLoan::~CLoan() {
  threads_.EndLoan(loan_);
}

}  // namespace TansyNet
