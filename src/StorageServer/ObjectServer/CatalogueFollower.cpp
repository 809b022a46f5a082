#include "StorageServer/ObjectServer/CatalogueFollower.h"

#include <limits>
#include <utility>

#include "OSAL/Osal.h"
#include "TansyBase/MessageLoop.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr CCatalogueFollower::Clock::rep kNever = std::numeric_limits<CCatalogueFollower::Clock::rep>::min() / 2;

}  // namespace
}  // namespace details

CCatalogueFollower::CCatalogueFollower(std::function<bool()> round, const Times& times)
    : round_(std::move(round)),
      times_(times),
      most_lag_(std::chrono::duration_cast<Clock::duration>(times.most_lag).count()),
      fresh_at_(details::kNever),
      thread_([this] { Run(); }) {}

CCatalogueFollower::~CCatalogueFollower() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_stopping_ = true;
  }
  work_.notify_one();
  thread_.join();
}

void CCatalogueFollower::Wake() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_woken_ = true;
  }
  work_.notify_one();
}

bool CCatalogueFollower::CatchUp() {
  if (std::this_thread::get_id() == thread_.get_id()) {
    return IsFresh();  // called by what has waited for a round, which is over
  }
  const TansyBase::CBlockingScope blocking;
  std::unique_lock<std::mutex> lock(mutex_);
  if (ended_round_ < begun_ && Clock::now() - began_at_ > times_.patience) {
    return false;  // the database is silent: nobody else needs to find that out by waiting
  }
  const std::uint64_t round = begun_ + 1;
  wanted_ = round;
  work_.notify_one();
  ended_.wait_for(lock, times_.patience, [this, round] { return ended_round_ >= round || is_stopping_; });
  return succeeded_ >= round;
}

void CCatalogueFollower::WhenCaughtUp(std::function<void()> then) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_.push_back(std::move(then));
    wanted_ = begun_ + 1;
  }
  work_.notify_one();
}

void CCatalogueFollower::Run() {
  OSAL_SetThreadName("tansy-follow");
  std::unique_lock<std::mutex> lock(mutex_);
  while (!is_stopping_) {
    work_.wait_for(lock, times_.period, [this] { return is_stopping_ || is_woken_ || wanted_ > begun_; });
    if (!is_stopping_ && !Round(lock)) {
      work_.wait_for(lock, times_.pause, [this] { return is_stopping_; });
    }
  }
  // Nobody reads memory any more.
  Waiting rest;
  rest.swap(waiting_);
  ended_.notify_all();
  lock.unlock();
  for (const auto& then : rest) {
    then();
  }
}

bool CCatalogueFollower::Round(std::unique_lock<std::mutex>& lock) {
  const std::uint64_t number = ++begun_;
  is_woken_ = false;
  began_at_ = Clock::now();
  const Clock::rep began_at = began_at_.time_since_epoch().count();
  Waiting waiting;
  waiting.swap(waiting_);
  lock.unlock();
  const bool succeeded = round_();
  if (succeeded) {
    fresh_at_ = began_at;
  }
  // After a failure they go on waiting as long as somebody may read memory without what they wait for.
  const bool is_over = succeeded || !IsFresh();
  if (is_over) {
    for (const auto& then : waiting) {
      then();
    }
    waiting.clear();
  }
  lock.lock();
  waiting_.splice(waiting_.begin(), waiting);
  ended_round_ = number;
  succeeded_ = succeeded ? number : succeeded_;
  ended_.notify_all();
  return succeeded;
}

}  // namespace Tansy::CloudStorage
