// Finds the connection that waits for the answer to a request.
#ifndef TANSY_NET_SERVER_HANDLE_TABLE_H
#define TANSY_NET_SERVER_HANDLE_TABLE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "TansyNet/server/IServerConnection.h"

namespace TansyNet {

// Threads: any. Handles count upwards from 1; when all positive numbers have been used, the negative ones follow. Only
// after those the count begins again, and leaves out numbers that are still open. 0 is never a handle.
class CHandleTable {
 public:
  explicit CHandleTable(std::uint32_t first = 1) : next_(first) {}

  std::int32_t Add(const std::shared_ptr<IServerConnection>& connection);
  // Returns null when the request is not open.
  std::shared_ptr<IServerConnection> Find(std::int32_t handle) const;
  void Remove(std::int32_t handle);
  // Gives all that are open, in no order.
  std::vector<std::pair<std::int32_t, std::shared_ptr<IServerConnection>>> All() const;
  std::size_t Size() const { return size_.load(std::memory_order_relaxed); }

 private:
  struct Shard {
    mutable std::mutex mutex;
    std::unordered_map<std::int32_t, std::shared_ptr<IServerConnection>> connections;
  };
  static constexpr std::size_t kShards = 16;

  Shard& ShardOf(std::int32_t handle) { return shards_[static_cast<std::uint32_t>(handle) % kShards]; }
  const Shard& ShardOf(std::int32_t handle) const { return shards_[static_cast<std::uint32_t>(handle) % kShards]; }

  // Neighbouring handles lie in different shards, so that threads rarely meet at one lock.
  std::array<Shard, kShards> shards_;
  std::atomic<std::uint32_t> next_;
  std::atomic<std::size_t> size_{0};
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_HANDLE_TABLE_H
