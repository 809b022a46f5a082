// Listening sockets that somebody else has opened for this process, as a service manager does.
#ifndef TANSY_NET_SERVER_OFFERED_SOCKETS_H
#define TANSY_NET_SERVER_OFFERED_SOCKETS_H

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "TansyNet/transport/SystemSockets.h"

namespace TansyNet {

// They stay open as long as the process, so that clients who come while nobody accepts wait instead of being refused.
// Threads: any.
class COfferedSockets {
 public:
  // Takes them over. Returns in one line why one of them cannot be used; the text is empty when all can.
  std::string Add(const std::vector<details::SocketHandle>& sockets);
  // Gives a copy of the socket that listens there, which the caller closes; kNoSocket when there is none.
  details::SocketHandle Find(const std::string& address, std::uint16_t port);
  // Names those that nobody has asked for: "127.0.0.1 port 9700".
  std::vector<std::string> Unused() const;

 private:
  struct Offer {
    details::SocketHandle socket = details::kNoSocket;
    details::ListenerName name;
    bool is_used = false;
  };

  mutable std::mutex mutex_;
  std::vector<Offer> offers_;  // guarded by mutex_
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_OFFERED_SOCKETS_H
