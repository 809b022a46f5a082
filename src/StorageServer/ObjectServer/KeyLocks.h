#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_LOCKS_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_LOCKS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <string_view>
#include <utility>

#include "StorageServer/ObjectServer/HandedLocks.h"
#include "TansyBase/MessageLoop.h"

namespace Tansy::CloudStorage {

// Serialises work on one name, while work on different names goes on side by side: each name belongs to one of
// `Stripes` mutexes. A thread may lock one name or all of them, never two; what it holds may be handed to another
// thread and released there. Whoever waits lets a spare thread of its message loop take its place, because names are
// held while the database commits. Threads: any.
template <std::size_t Stripes>
class CKeyLocks {
 public:
  class Guard {
   public:
    // Tells which mutex stands for the name.
    const CHandedMutex* Stripe() const { return name_.mutex(); }

   private:
    friend class CKeyLocks;
    Guard(std::shared_lock<CHandedSharedMutex> some, std::unique_lock<CHandedMutex> name)
        : some_(std::move(some)), name_(std::move(name)) {}

    std::shared_lock<CHandedSharedMutex> some_;
    std::unique_lock<CHandedMutex> name_;
  };
  using AllGuard = std::unique_lock<CHandedSharedMutex>;

  // Locks a name of a group ("bucket" and "key"); the group may be empty.
  [[nodiscard]] Guard Lock(std::string_view group, std::string_view name) {
    const std::hash<std::string_view> hash;
    std::shared_lock<CHandedSharedMutex> some(all_, std::defer_lock);
    if (wanted_by_ != 0 || !some.try_lock()) {
      // Somebody wants all names, or has them; turn_ is free once nobody waits for them any more.
      const TansyBase::CBlockingScope blocking;
      const std::lock_guard<std::mutex> turn(turn_);
      some.lock();
    }
    std::unique_lock<CHandedMutex> one(stripes_[(hash(group) * 31 + hash(name)) % Stripes], std::defer_lock);
    TansyBase::LockWhileBlocking(one);
    return Guard(std::move(some), std::move(one));
  }

  // Locks every name. Names that are locked already are waited for, and nobody gets another one meanwhile: work on
  // single names that never pauses would otherwise keep this caller waiting for ever.
  [[nodiscard]] AllGuard LockAll() {
    const TansyBase::CBlockingScope blocking;
    ++wanted_by_;
    AllGuard all(all_, std::defer_lock);
    {
      const std::lock_guard<std::mutex> turn(turn_);
      all.lock();
    }
    --wanted_by_;
    return all;
  }

 private:
  std::atomic<int> wanted_by_{0};  // callers of LockAll that wait
  std::mutex turn_;                // held while one of them waits for all_
  CHandedSharedMutex all_;         // shared by those who hold one name
  std::array<CHandedMutex, Stripes> stripes_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_LOCKS_H
