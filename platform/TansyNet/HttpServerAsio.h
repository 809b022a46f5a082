// The places where the server meets Asio; only for the sources that drive sockets.
#ifndef TANSY_NET_HTTP_SERVER_ASIO_H
#define TANSY_NET_HTTP_SERVER_ASIO_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <memory>

#include "TansyNet/HttpServerWorker.h"
#include "TansyNet/ServerConnectionSocket.h"

namespace TansyNet {

// The worker's event loop; sockets made on it are watched by the worker's thread.
boost::asio::io_context& ContextOf(CServerWorker& worker);

// Null when the peer is gone already.
std::unique_ptr<CServerSocket> MakeServerSocket(boost::asio::ip::tcp::socket socket);

}  // namespace TansyNet

#endif  // TANSY_NET_HTTP_SERVER_ASIO_H
