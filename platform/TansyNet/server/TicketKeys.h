// The keys of the tickets with which clients resume TLS sessions.
#ifndef TANSY_NET_SERVER_TICKET_KEYS_H
#define TANSY_NET_SERVER_TICKET_KEYS_H

#include <openssl/types.h>

#include <array>
#include <chrono>
#include <mutex>
#include <optional>

namespace TansyNet {

// If a key stayed the same and became known, it would open all connections that were ever made under it. So a new key
// is made every twelve hours, and tickets under the previous key count for another twelve. Threads: any.
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

  // Gives the key for new tickets; nothing when the system provides no random bytes.
  std::optional<Key> Current(Clock::time_point now);
  // Finds the key that a ticket names; nothing when the key is unknown or too old.
  std::optional<Found> Find(const unsigned char* name, Clock::time_point now);

  // Gives a context ticket keys of its own, which live as long as the context. Returns false when the context refuses.
  static bool Use(SSL_CTX* context);

 private:
  bool Renew(Clock::time_point now);

  std::mutex mutex_;  // guards the members below
  std::optional<Key> current_;
  std::optional<Key> previous_;
  Clock::time_point made_;  // when the current key was made
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_TICKET_KEYS_H
