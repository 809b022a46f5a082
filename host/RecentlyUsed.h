#ifndef TANSY_HOST_RECENTLY_USED_H
#define TANSY_HOST_RECENTLY_USED_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace Tansy::Host {

// Keeps what was read of stored bytes lately: a value per id, as many as fit; those that were not used for longest go
// first. `Value` is a shared pointer. Values of one id never differ, except after a Drop.
//
// Who finds nothing gets a ticket, reads, and adds with it. A Drop in between makes the ticket void, because what was
// read may be gone by then.
//
// Threads: any. Nothing is destroyed while a lock is held.
template <typename Value>
class CRecentlyUsed {
 public:
  using Ticket = std::uint64_t;

  // The result is null when there is nothing.
  Value Find(const std::string& id, Ticket& ticket) {
    Shard& shard = ShardOf(id);
    const std::lock_guard lock(shard.mutex);
    ticket = shard.drops;
    const auto found = shard.by_id.find(id);
    if (found == shard.by_id.end()) {
      return nullptr;
    }
    shard.entries.splice(shard.entries.begin(), shard.entries, found->second);
    return found->second->value;
  }

  // Keeps a value, in the place of what is there for the id. All values together weigh at most `capacity`.
  void Add(const std::string& id, Value value, std::uint64_t weight, std::uint64_t capacity, Ticket ticket) {
    Entries fresh;
    fresh.push_back({id, std::move(value), weight});
    Entries gone;
    Shard& shard = ShardOf(id);
    const std::lock_guard lock(shard.mutex);
    if (shard.drops != ticket) {
      return;
    }
    shard.Take(id, gone);
    shard.by_id.emplace(fresh.front().id, fresh.begin());
    shard.entries.splice(shard.entries.begin(), fresh);
    shard.weight += weight;
    while (!shard.entries.empty() && shard.weight > capacity / kShards) {
      shard.Take(shard.entries.back().id, gone);
    }
  }

  void Drop(const std::string& id) {
    Entries gone;
    Shard& shard = ShardOf(id);
    const std::lock_guard lock(shard.mutex);
    ++shard.drops;
    shard.Take(id, gone);
  }

  void DropAll() {
    for (Shard& shard : shards_) {
      Entries gone;
      const std::lock_guard lock(shard.mutex);
      ++shard.drops;
      shard.by_id.clear();
      gone.swap(shard.entries);
      shard.weight = 0;
    }
  }

 private:
  struct Entry {
    std::string id;
    Value value;
    std::uint64_t weight = 0;
  };
  using Entries = std::list<Entry>;

  struct Shard {
    // Moves the entry of an id, if there is one, into `gone`. It needs no memory.
    void Take(std::string_view id, Entries& gone) {
      const auto found = by_id.find(id);
      if (found != by_id.end()) {
        const auto entry = found->second;
        weight -= entry->weight;
        by_id.erase(found);
        gone.splice(gone.begin(), entries, entry);
      }
    }

    std::mutex mutex;
    // Everything below is guarded by mutex.
    Entries entries;  // the entry that was used last comes first
    std::unordered_map<std::string_view, typename Entries::iterator> by_id;
    std::uint64_t weight = 0;
    Ticket drops = 0;
  };

  static constexpr std::size_t kShards = 16;

  Shard& ShardOf(const std::string& id) { return shards_.at(std::hash<std::string_view>{}(id) % kShards); }

  std::array<Shard, kShards> shards_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_RECENTLY_USED_H
