// Connections that wait for the next request of any code in the process.
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

// Threads: any. The pool has no thread of its own: the next call of anybody closes connections whose time is over.
class CConnectionPool {
 public:
  static constexpr std::size_t kMaxIdle = 128;
  static constexpr std::size_t kMaxIdlePerServer = 32;
  // Common servers close idle connections after 5 seconds or more. When a server closes while a request is on its way,
  // the request is sent a second time, or fails when it must not be repeated. So connections are kept for less time
  // than that.
  static constexpr std::chrono::milliseconds kMaxIdleTime{4000};

  // Some servers close each connection after their answer without having said so. After this time they have done so; a
  // connection that has been idle for less may be about to close, unless it has been kept before: then its server has
  // shown that it does not close after an answer.
  static constexpr std::chrono::milliseconds kSettled{50};

  static CConnectionPool& Instance();

  // Gives the text by which servers are told apart: scheme, host without regard to case, port.
  static std::string Key(const URL& url);

  // Takes a connection with the server that is still alive and has been kept before or idle for at least this long; the
  // one that was used last is preferred. Returns null when there is none.
  std::unique_ptr<CClientConnection> Take(const std::string& key,
                                          std::chrono::milliseconds idle = std::chrono::milliseconds(0));
  // Keeps a connection whose last exchange is complete. When there is no memory for that, it closes the connection.
  // `kept_before` says that Take has given the connection for that exchange.
  void Give(const std::string& key, std::unique_ptr<CClientConnection> connection, bool kept_before = false) noexcept;
  void Clear();
  std::size_t IdleCount();

 private:
  using Clock = std::chrono::steady_clock;
  struct Idle {
    std::string key;
    std::unique_ptr<CClientConnection> connection;
    Clock::time_point since;
    bool kept_before = false;
  };

  std::unique_ptr<CClientConnection> TakeAny(const std::string& key, std::chrono::milliseconds idle);
  void Keep(const std::string& key, std::unique_ptr<CClientConnection> connection, bool kept_before);
  static void RemoveStale(std::vector<Idle>& idle, std::vector<Idle>& removed);

  std::mutex mutex_;        // guards the members below
  std::vector<Idle> idle_;  // oldest first
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_CONNECTION_POOL_H
