// The keys under which TLS sessions are handed to clients to be resumed.
#ifndef TANSY_NET_SERVER_TICKET_KEYS_H
#define TANSY_NET_SERVER_TICKET_KEYS_H

#include <openssl/types.h>

#include <array>
#include <chrono>
#include <mutex>
#include <optional>

namespace TansyNet {

// A key that stayed the same would, once known, open all connections that were ever made under it. So a new one is made
// every twelve hours; tickets under the one before are good for another twelve. Any thread.
class CTicketKeys {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::hours kLife{12};

  struct Key {
    std::array<unsigned char, 16> name;
    std::array<unsigned char, 32> cipher;
    std::array<unsigned char, 32> digest;
  };
  struct Found {
    Key key;
    bool is_current = false;
  };

  // The key for new tickets; nothing when the system gives no random bytes.
  std::optional<Key> Current(Clock::time_point now);
  // The key that a ticket names; nothing when it is unknown or too old.
  std::optional<Found> Find(const unsigned char* name, Clock::time_point now);

  // Makes the tickets of a context come under keys of its own, which go with the context. False when it refuses.
  static bool Use(SSL_CTX* context);

 private:
  bool Renew(Clock::time_point now);

  std::mutex mutex_;  // guards the members below
  std::optional<Key> current_;
  std::optional<Key> previous_;
  Clock::time_point made_;  // the current one
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_TICKET_KEYS_H
