#include "TansyNet/ServerConnectionSocket.h"

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <utility>

#include "TansyNet/HttpServerAsio.h"

namespace TansyNet {

namespace asio = boost::asio;
using boost::system::error_code;

struct CServerSocket::Impl {
  asio::ip::tcp::socket socket;
  std::string peer;
};

namespace details {
namespace {

IoResult Outcome(const error_code& error, std::size_t bytes, IoStatus would_block) {
  if (!error) {
    return {IoStatus::kDone, bytes};
  }
  if (error == asio::error::would_block || error == asio::error::try_again) {
    return {would_block, 0};
  }
  return {error == asio::error::eof ? IoStatus::kEnd : IoStatus::kFailed, 0};
}

}  // namespace
}  // namespace details

std::unique_ptr<CServerSocket> MakeServerSocket(asio::ip::tcp::socket socket) {
  error_code error;
  const auto peer = socket.remote_endpoint(error);
  if (!error) {
    socket.non_blocking(true, error);
  }
  if (error) {
    return nullptr;
  }
  // Answers are written whole; waiting for more to send only delays them.
  socket.set_option(asio::ip::tcp::no_delay(true), error);
  auto impl = std::make_unique<CServerSocket::Impl>(
      CServerSocket::Impl{.socket = std::move(socket), .peer = peer.address().to_string()});
  return std::make_unique<CServerSocket>(std::move(impl));
}

CServerSocket::CServerSocket(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

CServerSocket::~CServerSocket() {
  error_code ignored;
  impl_->socket.close(ignored);
}

const std::string& CServerSocket::PeerAddress() const {
  return impl_->peer;
}

IoResult CServerSocket::Receive(char* data, std::size_t size) {
  error_code error;
  const std::size_t bytes = impl_->socket.receive(asio::buffer(data, size), 0, error);
  return details::Outcome(error, bytes, IoStatus::kWantRead);
}

IoResult CServerSocket::Peek() {
  char byte = 0;
  error_code error;
  const std::size_t bytes = impl_->socket.receive(asio::buffer(&byte, 1), asio::socket_base::message_peek, error);
  return details::Outcome(error, bytes, IoStatus::kWantRead);
}

IoResult CServerSocket::Send(std::string_view first, std::string_view second) {
  error_code error;
  std::size_t bytes = 0;
  if (second.empty()) {
    bytes = impl_->socket.send(asio::buffer(first.data(), first.size()), 0, error);
  } else {
    const std::array<asio::const_buffer, 2> pieces = {asio::buffer(first.data(), first.size()),
                                                      asio::buffer(second.data(), second.size())};
    bytes = impl_->socket.send(pieces, 0, error);
  }
  return details::Outcome(error, bytes, IoStatus::kWantWrite);
}

void CServerSocket::WatchReadable(std::shared_ptr<ISocketEvents> owner) {
  impl_->socket.async_wait(asio::socket_base::wait_read,
                           [owner = std::move(owner)](const error_code&) { owner->OnReadable(); });
}

void CServerSocket::WatchWritable(std::shared_ptr<ISocketEvents> owner) {
  impl_->socket.async_wait(asio::socket_base::wait_write,
                           [owner = std::move(owner)](const error_code&) { owner->OnWritable(); });
}

void CServerSocket::ShutdownSend() {
  error_code ignored;
  impl_->socket.shutdown(asio::socket_base::shutdown_send, ignored);
}

void CServerSocket::Stop() {
  error_code ignored;
  impl_->socket.shutdown(asio::socket_base::shutdown_both, ignored);
  impl_->socket.cancel(ignored);
}

std::intptr_t CServerSocket::NativeHandle() const {
  return static_cast<std::intptr_t>(impl_->socket.native_handle());
}

}  // namespace TansyNet
