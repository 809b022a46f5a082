#include "TansyNet/server/HandleTable.h"

namespace TansyNet {

std::int32_t CHandleTable::Add(const std::shared_ptr<IServerConnection>& connection) {
  for (;;) {
    const auto handle = static_cast<std::int32_t>(next_.fetch_add(1, std::memory_order_relaxed));
    if (handle == 0) {
      continue;
    }
    Shard& shard = ShardOf(handle);
    const std::scoped_lock lock(shard.mutex);
    if (shard.connections.try_emplace(handle, connection).second) {
      size_.fetch_add(1, std::memory_order_relaxed);
      return handle;
    }
  }
}

std::shared_ptr<IServerConnection> CHandleTable::Find(std::int32_t handle) const {
  const Shard& shard = ShardOf(handle);
  const std::scoped_lock lock(shard.mutex);
  const auto found = shard.connections.find(handle);
  return found == shard.connections.end() ? nullptr : found->second;
}

std::vector<std::pair<std::int32_t, std::shared_ptr<IServerConnection>>> CHandleTable::All() const {
  std::vector<std::pair<std::int32_t, std::shared_ptr<IServerConnection>>> all;
  for (const Shard& shard : shards_) {
    const std::scoped_lock lock(shard.mutex);
    all.insert(all.end(), shard.connections.begin(), shard.connections.end());
  }
  return all;
}

void CHandleTable::Remove(std::int32_t handle) {
  Shard& shard = ShardOf(handle);
  std::shared_ptr<IServerConnection> last;  // released after the lock
  const std::scoped_lock lock(shard.mutex);
  const auto found = shard.connections.find(handle);
  if (found != shard.connections.end()) {
    last = std::move(found->second);
    shard.connections.erase(found);
    size_.fetch_sub(1, std::memory_order_relaxed);
  }
}

}  // namespace TansyNet
