#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_HANDED_LOCKS_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_HANDED_LOCKS_H

#include <condition_variable>
#include <mutex>
#include <utility>

#include "TansyBase/Noncopyable.h"

namespace Tansy::CloudStorage {

// A mutex that one thread may lock and another one unlock. It belongs to a piece of work that goes on on another thread
// while it is locked; the mutexes of the standard library belong to a thread. Its members are those of std::mutex.
class CHandedMutex : private TansyBase::CNoncopyable {
 public:
  void lock() {
    std::unique_lock<std::mutex> lock(mutex_);
    unlocked_.wait(lock, [this] { return !is_locked_; });
    is_locked_ = true;
  }
  bool try_lock() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return !std::exchange(is_locked_, true);
  }
  void unlock() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      is_locked_ = false;
    }
    unlocked_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable unlocked_;
  bool is_locked_ = false;  // guarded by mutex_
};

// The same with the members of std::shared_mutex. Those who share it may keep the one waiting who wants it alone.
class CHandedSharedMutex : private TansyBase::CNoncopyable {
 public:
  void lock() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !is_locked_ && sharers_ == 0; });
    is_locked_ = true;
  }
  void unlock() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      is_locked_ = false;
    }
    changed_.notify_all();
  }
  void lock_shared() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !is_locked_; });
    ++sharers_;
  }
  bool try_lock_shared() {
    const std::lock_guard<std::mutex> lock(mutex_);
    sharers_ += is_locked_ ? 0 : 1;
    return !is_locked_;
  }
  void unlock_shared() {
    bool is_last = false;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      is_last = --sharers_ == 0;
    }
    if (is_last) {
      changed_.notify_all();
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  // Both are guarded by mutex_.
  bool is_locked_ = false;
  unsigned sharers_ = 0;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_HANDED_LOCKS_H
