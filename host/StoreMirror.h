#ifndef TANSY_HOST_STORE_MIRROR_H
#define TANSY_HOST_STORE_MIRROR_H

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ObjectStore.h"

namespace Tansy::Host {

// Does to a second store what was done to the first one, on threads of its own. What is given for one name is done in
// the order in which it was given.
//
// Whoever gives work waits for it, so that nobody is much faster than the second store, but only for a moment: a store
// that has become silent must not keep clients waiting. Work that fails, or a silence that lasts, ends the mirror: it
// has failed then, and what is given later is not done.
//
// Threads: any may give work; one thread ends it. Errors: work that cannot be taken for want of memory has failed.
class CStoreMirror {
 public:
  // For this long a giver waits for its work, or for room.
  static constexpr std::chrono::milliseconds kPatience{700};
  // Without any progress for this long, the second store is given up.
  static constexpr std::chrono::seconds kSilence{10};
  // The most bytes that work which is not done yet may hold.
  static constexpr std::size_t kMostBytes = std::size_t{64} << 20;

  // It owns what it uses, because it may be done after its giver has gone. Making it needs memory.
  using Work = std::function<EStoreResult(IObjectStore& target)>;
  using MakeWork = std::function<Work()>;
  class CTicket;
  using Ticket = std::shared_ptr<CTicket>;

  explicit CStoreMirror(std::shared_ptr<IObjectStore> target);
  ~CStoreMirror();
  CStoreMirror(const CStoreMirror&) = delete;
  CStoreMirror& operator=(const CStoreMirror&) = delete;

  // Takes work that holds so many bytes. Null when the mirror has failed.
  Ticket Give(const StoredName& name, std::size_t bytes, const MakeWork& make_work) noexcept;
  // Waits until it is done, but only for a moment.
  void WaitABit(const Ticket& ticket);
  // Waits until it is done, and gives its result; kFailed when the mirror has failed before.
  EStoreResult WaitForEnd(const Ticket& ticket);

  bool HasFailed();
  // Returns true when all that was given is done, at the latest after this time.
  bool WaitUntilIdle(std::chrono::milliseconds wait);
  // Forgets what has not begun, waits for what has, and leaves the store alone from then on.
  void End();

  const std::shared_ptr<IObjectStore>& Target() const { return target_; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Job {
    Work work;
    std::size_t bytes = 0;
    Ticket ticket;
  };
  // Each name has its lane.
  struct Lane {
    std::condition_variable has_job;
    std::deque<Job> jobs;
    std::thread thread;
  };

  void Run(Lane& lane);
  EStoreResult Do(const Job& job) const;
  bool WaitForRoom(std::unique_lock<std::mutex>& lock, std::size_t bytes);
  void Fail(const char* reason);
  bool IsSilent() const;

  std::shared_ptr<IObjectStore> target_;
  std::mutex mutex_;
  std::condition_variable changed_;  // work was done, or the mirror has failed
  std::array<Lane, 16> lanes_;
  std::size_t open_jobs_ = 0;
  std::size_t open_bytes_ = 0;
  Clock::time_point last_progress_;
  bool is_late_ = false;  // somebody has waited in vain since the last progress
  bool has_failed_ = false;
  bool has_ended_ = false;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_STORE_MIRROR_H
