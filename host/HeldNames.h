#ifndef TANSY_HOST_HELD_NAMES_H
#define TANSY_HOST_HELD_NAMES_H

#include <cstddef>
#include <map>
#include <mutex>
#include <string>

#include "StoredName.h"

namespace Tansy::Host {

// Counts who is reading stored bytes, for a store that cannot keep bytes by holding them open: a removal waits there
// for the last reader. Threads: any.
class CHeldNames {
 public:
  // Counts one more reader. Returns false when the bytes are being removed.
  bool Begin(const StoredName& name) {
    const std::lock_guard lock(mutex_);
    const auto held = names_.try_emplace(name.id).first;
    if (held->second.is_removed) {
      return false;
    }
    ++held->second.readers;
    return true;
  }

  // Returns true when the removal has waited for this reader: the caller then removes the bytes and calls EndRemoval.
  bool End(const StoredName& name) {
    const std::lock_guard lock(mutex_);
    const auto held = names_.find(name.id);
    if (held == names_.end() || --held->second.readers > 0) {
      return false;
    }
    if (held->second.is_removed) {
      return true;
    }
    names_.erase(held);
    return false;
  }

  // From now on no reader begins. Returns false when the removal has to wait for readers; else EndRemoval must follow.
  bool BeginRemoval(const StoredName& name) {
    const std::lock_guard lock(mutex_);
    Held& held = names_[name.id];
    held.is_removed = true;
    return held.readers == 0;
  }

  void EndRemoval(const StoredName& name) {
    const std::lock_guard lock(mutex_);
    names_.erase(name.id);
  }

  // Says whether a removal has begun, or waits.
  bool IsRemoved(const StoredName& name) const {
    const std::lock_guard lock(mutex_);
    const auto held = names_.find(name.id);
    return held != names_.end() && held->second.is_removed;
  }

  bool HasReaders(const StoredName& name) const {
    const std::lock_guard lock(mutex_);
    const auto held = names_.find(name.id);
    return held != names_.end() && held->second.readers > 0;
  }

 private:
  struct Held {
    std::size_t readers = 0;
    bool is_removed = false;
  };

  mutable std::mutex mutex_;
  std::map<std::string, Held> names_;  // by id
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_HELD_NAMES_H
