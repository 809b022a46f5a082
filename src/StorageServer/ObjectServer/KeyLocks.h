#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_LOCKS_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_KEY_LOCKS_H

#include <array>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string_view>

namespace Tansy::CloudStorage {

// Serialises work on one name, while work on different names goes on side by side: each name belongs to one of
// `Stripes` mutexes. A thread may hold one name or all of them, never two. Threads: any.
template <std::size_t Stripes>
class CKeyLocks {
 public:
  using Guard = std::unique_lock<std::mutex>;
  using AllGuard = std::array<Guard, Stripes>;

  // Locks a name of a group ("bucket" and "key"); the group may be empty.
  [[nodiscard]] Guard Lock(std::string_view group, std::string_view name) {
    const std::hash<std::string_view> hash;
    return Guard(stripes_[(hash(group) * 31 + hash(name)) % Stripes]);
  }

  // Locks every name. The mutexes are taken in a fixed order, so two such calls cannot block each other.
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
