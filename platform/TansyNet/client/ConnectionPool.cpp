#include "TansyNet/client/ConnectionPool.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include "TansyNet/client/ClientTls.h"

namespace TansyNet::details {

CConnectionPool& CConnectionPool::Instance() {
  static auto* const pool = new CConnectionPool;  // used by threads that may outlive static objects
  return *pool;
}

std::string CConnectionPool::Key(const URL& url) {
  std::string key = url.scheme + "://" + url.host;
  std::transform(key.begin(), key.end(), key.begin(), [](char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
  });
  return key + " " + std::to_string(url.port);
}

std::unique_ptr<CClientConnection> CConnectionPool::Take(const std::string& key, std::chrono::milliseconds idle) {
  while (auto connection = TakeAny(key, idle)) {
    if (connection->IsAlive()) {
      return connection;
    }
  }
  return nullptr;
}

std::unique_ptr<CClientConnection> CConnectionPool::TakeAny(const std::string& key, std::chrono::milliseconds idle) {
  std::vector<Idle> removed;  // closed after the lock is released
  const std::lock_guard<std::mutex> lock(mutex_);
  RemoveStale(idle_, removed);
  const auto latest = Clock::now() - idle;
  const auto found = std::find_if(idle_.rbegin(), idle_.rend(), [&](const Idle& entry) {
    return entry.key == key && (entry.kept_before || entry.since <= latest);
  });
  if (found == idle_.rend()) {
    return nullptr;
  }
  auto connection = std::move(found->connection);
  idle_.erase(std::next(found).base());
  return connection;
}

void CConnectionPool::Give(const std::string& key, std::unique_ptr<CClientConnection> connection,
                           bool kept_before) noexcept {
  if (connection->trust_generation() != ClientTrustGeneration()) {
    return;
  }
  try {
    Keep(key, std::move(connection), kept_before);
  } catch (const std::bad_alloc&) {
    // The connection is closed instead; the exchange that used it is complete all the same.
    return;
  }
}

void CConnectionPool::Keep(const std::string& key, std::unique_ptr<CClientConnection> connection, bool kept_before) {
  std::vector<Idle> removed;
  const std::lock_guard<std::mutex> lock(mutex_);
  RemoveStale(idle_, removed);
  const auto of_server = [&](const Idle& entry) { return entry.key == key; };
  auto oldest = idle_.end();
  if (static_cast<std::size_t>(std::count_if(idle_.begin(), idle_.end(), of_server)) >= kMaxIdlePerServer) {
    oldest = std::find_if(idle_.begin(), idle_.end(), of_server);
  } else if (idle_.size() >= kMaxIdle) {
    oldest = idle_.begin();
  }
  if (oldest != idle_.end()) {
    removed.push_back(std::move(*oldest));
    idle_.erase(oldest);
  }
  idle_.push_back({key, std::move(connection), Clock::now(), kept_before});
}

void CConnectionPool::RemoveStale(std::vector<Idle>& idle, std::vector<Idle>& removed) {
  removed.reserve(idle.size() + 1);  // so that nothing can fail between taking an entry out and listing it as removed
  const auto now = Clock::now();
  const std::uint64_t generation = ClientTrustGeneration();
  const auto is_stale = [&](const Idle& entry) {
    return now - entry.since > kMaxIdleTime || entry.connection->trust_generation() != generation;
  };
  const auto first =
      std::stable_partition(idle.begin(), idle.end(), [&](const Idle& entry) { return !is_stale(entry); });
  std::move(first, idle.end(), std::back_inserter(removed));
  idle.erase(first, idle.end());
}

void CConnectionPool::Clear() {
  std::vector<Idle> removed;
  const std::lock_guard<std::mutex> lock(mutex_);
  removed.swap(idle_);
}

std::size_t CConnectionPool::IdleCount() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return idle_.size();
}

}  // namespace TansyNet::details
