#include "TansyNet/server/ServerSocket.h"

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <utility>

#include "TansyNet/server/AcceptedSocket.h"

namespace TansyNet {

namespace asio = boost::asio;
using boost::system::error_code;

namespace details {
namespace {

IoResult Outcome(const error_code& error, std::size_t bytes, IoStatus would_block) {
  if (!error) {
    return {.status = IoStatus::kDone, .bytes = bytes};
  }
  if (error == asio::error::would_block || error == asio::error::try_again) {
    return {.status = would_block};
  }
  return {.status = error == asio::error::eof ? IoStatus::kEnd : IoStatus::kFailed, .error = error.value()};
}

}  // namespace
}  // namespace details

std::unique_ptr<CServerSocket> CServerSocket::Create(AcceptedSocket accepted) {
  asio::ip::tcp::socket& socket = accepted.socket;
  error_code error;
  const auto peer = socket.remote_endpoint(error);
  if (!error) {
    socket.non_blocking(true, error);
  }
  if (error) {
    return nullptr;
  }
  // Answers are written whole, so waiting for more bytes would only delay them.
  socket.set_option(asio::ip::tcp::no_delay(true), error);
  auto kept = std::make_unique<AcceptedSocket>(std::move(accepted));
  return std::unique_ptr<CServerSocket>(new CServerSocket(std::move(kept), peer.address().to_string()));
}

CServerSocket::CServerSocket(std::unique_ptr<AcceptedSocket> accepted, std::string peer)
    : accepted_(std::move(accepted)), peer_(std::move(peer)) {}

CServerSocket::~CServerSocket() {
  error_code ignored;
  accepted_->socket.close(ignored);
}

IoResult CServerSocket::Read(char* data, std::size_t size) {
  error_code error;
  const std::size_t bytes = accepted_->socket.receive(asio::buffer(data, size), 0, error);
  return details::Outcome(error, bytes, IoStatus::kWantRead);
}

IoResult CServerSocket::Peek() {
  char byte = 0;
  error_code error;
  const std::size_t bytes = accepted_->socket.receive(asio::buffer(&byte, 1), asio::socket_base::message_peek, error);
  return details::Outcome(error, bytes, IoStatus::kWantRead);
}

IoResult CServerSocket::Write(std::string_view first, std::string_view second) {
  error_code error;
  std::size_t bytes = 0;
  if (second.empty()) {
    bytes = accepted_->socket.send(asio::buffer(first.data(), first.size()), 0, error);
  } else {
    const std::array<asio::const_buffer, 2> pieces = {asio::buffer(first.data(), first.size()),
                                                      asio::buffer(second.data(), second.size())};
    bytes = accepted_->socket.send(pieces, 0, error);
  }
  return details::Outcome(error, bytes, IoStatus::kWantWrite);
}

void CServerSocket::WatchReadable(std::shared_ptr<ISocketEvents> owner) {
  accepted_->socket.async_wait(asio::socket_base::wait_read,
                               [owner = std::move(owner)](const error_code&) { owner->OnReadable(); });
}

void CServerSocket::WatchWritable(std::shared_ptr<ISocketEvents> owner) {
  accepted_->socket.async_wait(asio::socket_base::wait_write,
                               [owner = std::move(owner)](const error_code&) { owner->OnWritable(); });
}

void CServerSocket::ShutdownSend() {
  error_code ignored;
  accepted_->socket.shutdown(asio::socket_base::shutdown_send, ignored);
}

void CServerSocket::Stop() {
  error_code ignored;
  accepted_->socket.shutdown(asio::socket_base::shutdown_both, ignored);
  accepted_->socket.cancel(ignored);
}

details::SocketHandle CServerSocket::NativeHandle() const {
  return static_cast<details::SocketHandle>(accepted_->socket.native_handle());
}

}  // namespace TansyNet
