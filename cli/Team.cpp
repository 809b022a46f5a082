#include "Team.h"

#include <algorithm>
#include <system_error>

namespace Tansy::Cli {

CTeam::~CTeam() {
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
  }
  changed_.notify_all();
  for (std::thread& thread : threads_) {
    thread.join();
  }
}

void CTeam::Together(std::size_t most, const Work& work) {
  if (std::min(most, size_) <= 1) {
    const std::atomic<bool> stop{false};
    work(stop);
    return;
  }
  Offer offer{work, most - 1};
  std::unique_lock lock(mutex_);
  const bool is_first = together_++ == 0;
  offers_.push_back(&offer);
  StartMembers(offer.places);
  changed_.notify_all();
  WorkOn(offer, lock);
  WaitForHelpers(offer, is_first, lock);
  --together_;
  if (offer.failure != nullptr) {
    std::rethrow_exception(offer.failure);
  }
}

void CTeam::StartMembers(std::size_t wanted) {
  try {
    for (std::size_t helpers = idle_; helpers < wanted && threads_.size() + 1 < size_; ++helpers) {
      threads_.emplace_back([this] { Serve(); });
    }
  } catch (const std::system_error&) {
    // The threads that are there take all of the work.
  }
}

void CTeam::Serve() {
  std::unique_lock lock(mutex_);
  while (!ended_) {
    if (!HelpSomebody(lock)) {
      ++idle_;
      changed_.wait(lock);
      --idle_;
    }
  }
}

void CTeam::WorkOn(Offer& offer, std::unique_lock<std::mutex>& lock) {
  lock.unlock();
  try {
    offer.work(offer.stop);
    lock.lock();
  } catch (...) {
    lock.lock();
    offer.failure = offer.failure != nullptr ? offer.failure : std::current_exception();
    offer.stop = true;
  }
  offers_.remove(&offer);
}

bool CTeam::HelpSomebody(std::unique_lock<std::mutex>& lock) {
  const auto found = std::find_if(offers_.begin(), offers_.end(), [](const Offer* offer) { return offer->places > 0; });
  if (found == offers_.end()) {
    return false;
  }
  Offer& offer = **found;
  --offer.places;
  ++offer.at_work;
  WorkOn(offer, lock);
  --offer.at_work;
  changed_.notify_all();
  return true;
}

// Whoever waits for the whole work may help with it. Others only wait for pieces that are under way: they have
// something to finish then, and must not begin to carry the file of somebody else.
void CTeam::WaitForHelpers(const Offer& offer, bool may_help, std::unique_lock<std::mutex>& lock) {
  while (offer.at_work > 0) {
    if (!may_help || !HelpSomebody(lock)) {
      changed_.wait(lock);
    }
  }
}

}  // namespace Tansy::Cli
