// A socket on its way from the listener to its connection; only for the sources that know Asio.
#ifndef TANSY_NET_SERVER_ACCEPTED_SOCKET_H
#define TANSY_NET_SERVER_ACCEPTED_SOCKET_H

#include <boost/asio/ip/tcp.hpp>

namespace TansyNet {

// Watched by the event loop on which it was made.
struct AcceptedSocket {
  boost::asio::ip::tcp::socket socket;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_ACCEPTED_SOCKET_H
