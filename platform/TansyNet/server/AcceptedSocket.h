// A socket on its way from the listener to its connection. Only sources that know Asio include this.
#ifndef TANSY_NET_SERVER_ACCEPTED_SOCKET_H
#define TANSY_NET_SERVER_ACCEPTED_SOCKET_H

#include <boost/asio/ip/tcp.hpp>

namespace TansyNet {

// The event loop on which the socket was made watches it.
struct AcceptedSocket {
  boost::asio::ip::tcp::socket socket;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_ACCEPTED_SOCKET_H
