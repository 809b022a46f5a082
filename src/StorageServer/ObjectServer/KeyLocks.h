#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_LOCKS_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_LOCKS_H

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "StorageServer/ObjectServer/HandedLocks.h"
#include "TansyBase/MessageLoop.h"

namespace Tansy::CloudStorage {

// Serialises work on one name, while work on different names goes on side by side: each name belongs to one of
// `Stripes` mutexes. A thread may lock one name, some of them in one call, or all of them; it must not hold any before.
// What it holds may be handed to another thread and released there. Whoever waits lets a spare thread of its message
// loop take its place, because names are held while the database commits. Threads: any.
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
  // Some names.
  class SomeGuard {
   private:
    friend class CKeyLocks;
    explicit SomeGuard(std::shared_lock<CHandedSharedMutex> some) : some_(std::move(some)) {}

    std::shared_lock<CHandedSharedMutex> some_;
    std::vector<std::unique_lock<CHandedMutex>> names_;
  };
  using AllGuard = std::unique_lock<CHandedSharedMutex>;

  // Locks a name of a group ("bucket" and "key"); the group may be empty.
  [[nodiscard]] Guard Lock(std::string_view group, std::string_view name) {
    std::shared_lock<CHandedSharedMutex> some = LockOutAll();
    std::unique_lock<CHandedMutex> one(stripes_[StripeOf(group, name)], std::defer_lock);
    TansyBase::LockWhileBlocking(one);
    return Guard(std::move(some), std::move(one));
  }

  // Locks these names of a group. All who do so take the mutexes in the same order, and nobody else takes a second one,
  // so that no two wait for each other.
  [[nodiscard]] SomeGuard Lock(std::string_view group, const std::vector<std::string_view>& names) {
    std::vector<std::size_t> stripes;
    stripes.reserve(names.size());
    for (const std::string_view name : names) {
      stripes.push_back(StripeOf(group, name));
    }
    std::sort(stripes.begin(), stripes.end());
    stripes.erase(std::unique(stripes.begin(), stripes.end()), stripes.end());
    SomeGuard guard(LockOutAll());
    guard.names_.reserve(stripes.size());
    for (const std::size_t stripe : stripes) {
      TansyBase::LockWhileBlocking(guard.names_.emplace_back(stripes_[stripe], std::defer_lock));
    }
    return guard;
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
  static std::size_t StripeOf(std::string_view group, std::string_view name) {
    const std::hash<std::string_view> hash;
    return (hash(group) * 31 + hash(name)) % Stripes;
  }

  // Keeps those away who want all names.
  std::shared_lock<CHandedSharedMutex> LockOutAll() {
    std::shared_lock<CHandedSharedMutex> some(all_, std::defer_lock);
    if (wanted_by_ != 0 || !some.try_lock()) {
      // Somebody wants all names, or has them; turn_ is free once nobody waits for them any more.
      const TansyBase::CBlockingScope blocking;
      const std::lock_guard<std::mutex> turn(turn_);
      some.lock();
    }
    return some;
  }

  std::atomic<int> wanted_by_{0};  // callers of LockAll that wait
  std::mutex turn_;                // held while one of them waits for all_
  CHandedSharedMutex all_;         // shared by those who hold one name
  std::array<CHandedMutex, Stripes> stripes_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_LOCKS_H
