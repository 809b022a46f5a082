// Connections that wait for the next request of anybody in the process.
#ifndef TANSY_NET_CLIENT_CONNECTION_POOL_H
#define TANSY_NET_CLIENT_CONNECTION_POOL_H

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TansyNet/client/ClientConnection.h"

namespace TansyNet::details {

// Any thread. The pool has no thread of its own: connections whose time is over are closed by the next call of anybody.
class CConnectionPool {
 public:
  static constexpr std::size_t kMaxIdle = 128;
  static constexpr std::size_t kMaxIdlePerServer = 32;
  // Common servers close idle connections after 5 seconds or more; a request that is on its way when a server closes is
  // sent a second time, or fails when it must not be.
  static constexpr std::chrono::milliseconds kMaxIdleTime{4000};

  // A server that closes each connection after its answer without having said so has done it by then. A connection that
  // has been idle for less may be about to close.
  static constexpr std::chrono::milliseconds kSettled{50};

  static CConnectionPool& Instance();

  // What tells servers apart: scheme, host without regard to case, port.
  static std::string Key(const URL& url);

  // Of the connections with the server that have been idle for at least so long, the one that was used last and is
  // still alive; null when there is none.
  std::unique_ptr<CClientConnection> Take(const std::string& key,
                                          std::chrono::milliseconds idle = std::chrono::milliseconds(0));
  // Keeps a connection whose last exchange is complete; closes it when memory for that has run out.
  void Give(const std::string& key, std::unique_ptr<CClientConnection> connection) noexcept;
  void Clear();
  std::size_t IdleCount();

 private:
  using Clock = std::chrono::steady_clock;
  struct Idle {
    std::string key;
    std::unique_ptr<CClientConnection> connection;
    Clock::time_point since;
  };

  std::unique_ptr<CClientConnection> TakeAny(const std::string& key, std::chrono::milliseconds idle);
  void Keep(const std::string& key, std::unique_ptr<CClientConnection> connection);
  static void RemoveStale(std::vector<Idle>& idle, std::vector<Idle>& removed);

  std::mutex mutex_;        // guards the members below
  std::vector<Idle> idle_;  // oldest first
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_CONNECTION_POOL_H
