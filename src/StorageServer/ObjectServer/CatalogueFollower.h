#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_FOLLOWER_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_FOLLOWER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

#include "TansyBase/Noncopyable.h"

namespace Tansy::CloudStorage {

// Keeps memory close behind a database that other processes change too. A thread of its own goes through rounds: each
// reads what has changed and brings memory up to it. A round that has ended well proves that memory holds everything
// that was committed before it began.
//
// Threads: any.
class CCatalogueFollower : private TansyBase::CNoncopyable {
 public:
  using Clock = std::chrono::steady_clock;

  struct Times {
    std::chrono::milliseconds period{200};     // a round begins at the latest so long after the last one
    std::chrono::milliseconds most_lag{800};   // nobody reads memory that is older
    std::chrono::milliseconds patience{2000};  // for a round that somebody waits for
    std::chrono::milliseconds pause{100};      // after a round that failed
  };

  // `round` returns false when it could not read everything; it must not throw.
  CCatalogueFollower(std::function<bool()> round, const Times& times);
  ~CCatalogueFollower();

  // Says that something has changed.
  void Wake();

  // Says whether memory is young enough to be read.
  bool IsFresh() const { return Clock::now().time_since_epoch().count() - fresh_at_ <= most_lag_; }
  // Waits for a round that begins from now on. Returns false when it fails or takes too long. On the follower's own
  // thread it says whether the last round was a good one.
  bool CatchUp();
  // Calls `then`, which must not throw, on the follower's thread after a round that begins from now on; or earlier,
  // when memory has become too old to be read. An exception (std::bad_alloc) means that it will not be called.
  void WhenCaughtUp(std::function<void()> then);

 private:
  using Waiting = std::list<std::function<void()>>;  // is moved without memory

  void Run();
  bool Round(std::unique_lock<std::mutex>& lock);

  const std::function<bool()> round_;
  const Times times_;
  const Clock::rep most_lag_;
  std::atomic<Clock::rep> fresh_at_;  // memory holds everything that was committed before this time

  std::mutex mutex_;  // guards what follows
  std::condition_variable work_;
  std::condition_variable ended_;
  bool is_stopping_ = false;
  bool is_woken_ = false;
  std::uint64_t begun_ = 0;      // number of the round that began last
  std::uint64_t wanted_ = 0;     // somebody waits for this round
  std::uint64_t succeeded_ = 0;  // number of the last round that ended well
  std::uint64_t ended_round_ = 0;
  Clock::time_point began_at_;  // when the round that began last did
  Waiting waiting_;             // for a round that has not begun
  std::thread thread_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_FOLLOWER_H
