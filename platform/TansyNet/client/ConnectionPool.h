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
  // Common servers close idle connections after 5 seconds or more; a connection closed by them while a request is on
  // its way costs a second attempt.
  static constexpr std::chrono::milliseconds kMaxIdleTime{4000};

  static CConnectionPool& Instance();

  // What tells servers apart: scheme, host without regard to case, port.
  static std::string Key(const URL& url);

  // The connection with the server that was used last and is still alive, or null.
  std::unique_ptr<CClientConnection> Take(const std::string& key);
  // Keeps a connection whose last exchange is complete.
  void Give(const std::string& key, std::unique_ptr<CClientConnection> connection);
  void Clear();
  std::size_t IdleCount();

 private:
  using Clock = std::chrono::steady_clock;
  struct Idle {
    std::string key;
    std::unique_ptr<CClientConnection> connection;
    Clock::time_point since;
  };

  std::unique_ptr<CClientConnection> TakeAny(const std::string& key);
  static void RemoveStale(std::vector<Idle>& idle, std::vector<Idle>& removed);

  std::mutex mutex_;        // guards the members below
  std::vector<Idle> idle_;  // oldest first
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_CONNECTION_POOL_H
