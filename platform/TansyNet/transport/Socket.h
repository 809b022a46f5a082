// What the server's and the client's sockets have in common.
#ifndef TANSY_NET_TRANSPORT_SOCKET_H
#define TANSY_NET_TRANSPORT_SOCKET_H

#include <cstddef>
#include <string_view>

#include "TansyNet/transport/IoResult.h"

namespace TansyNet {

// A connected TCP socket that never blocks. A failure always comes with the system's number. Threads: one call at a
// time.
class ISocket {
 public:
  virtual ~ISocket() = default;
  virtual IoResult Read(char* data, std::size_t size) = 0;
  // Writes both pieces with one system call. One of them may be empty, but not both.
  virtual IoResult Write(std::string_view first, std::string_view second) = 0;
};

}  // namespace TansyNet

#endif  // TANSY_NET_TRANSPORT_SOCKET_H
