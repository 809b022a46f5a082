#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_LOCKS_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_LOCKS_H

#include <array>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string_view>

namespace Tansy::CloudStorage {

// Puts work on one name in line and lets work on different names go on side by side: each name has one of `Stripes`
// mutexes. A thread holds one name, or all of them, never two. Threads: any.
template <std::size_t Stripes>
class CKeyLocks {
 public:
  using Guard = std::unique_lock<std::mutex>;
  using AllGuard = std::array<Guard, Stripes>;

  // Holds a name of a group ("bucket" and "key"); the group may be empty.
  [[nodiscard]] Guard Lock(std::string_view group, std::string_view name) {
    const std::hash<std::string_view> hash;
    return Guard(stripes_[(hash(group) * 31 + hash(name)) % Stripes]);
  }

  // Holds every name. Taken in one order, so two of these cannot block each other.
  [[nodiscard]] AllGuard LockAll() {
    AllGuard guards;
    for (std::size_t i = 0; i < Stripes; ++i) {
      guards[i] = Guard(stripes_[i]);
    }
    return guards;
  }

 private:
  std::array<std::mutex, Stripes> stripes_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_LOCKS_H
