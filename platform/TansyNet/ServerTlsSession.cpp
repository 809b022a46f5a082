#include "TansyNet/ServerTlsSession.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/sslerr.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <utility>

namespace TansyNet {
namespace details {
namespace {

constexpr std::size_t kRecordBytes = SSL3_RT_MAX_PLAIN_LENGTH;

// The TLS library's door to the socket. Its own door writes with plain system calls, which raise SIGPIPE on POSIX.
int BioWrite(BIO* bio, const char* data, int size) {
  BIO_clear_retry_flags(bio);
  auto* const socket = static_cast<CServerSocket*>(BIO_get_data(bio));
  const IoResult result = socket->Send({data, static_cast<std::size_t>(size)});
  if (result.status == IoStatus::kWantWrite) {
    BIO_set_retry_write(bio);
  }
  return result.status == IoStatus::kDone ? static_cast<int>(result.bytes) : -1;
}

int BioRead(BIO* bio, char* data, int size) {
  BIO_clear_retry_flags(bio);
  auto* const socket = static_cast<CServerSocket*>(BIO_get_data(bio));
  const IoResult result = socket->Receive(data, static_cast<std::size_t>(size));
  switch (result.status) {
    case IoStatus::kDone:
      return static_cast<int>(result.bytes);
    case IoStatus::kWantRead:
      BIO_set_retry_read(bio);
      return -1;
    case IoStatus::kEnd:
      return 0;
    default:
      return -1;
  }
}

long BioControl(BIO* /*bio*/, int command, long /*number*/, void* /*pointer*/) {
  // Nothing is buffered, so flushing always succeeds; nothing else is needed.
  return command == BIO_CTRL_FLUSH ? 1 : 0;
}

int BioCreate(BIO* bio) {
  BIO_set_init(bio, 1);
  return 1;
}

BIO_METHOD* SocketBio() {
  // Lives as long as the process: sessions of other threads may use it until then.
  static BIO_METHOD* const method = [] {
    BIO_METHOD* const made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "TansyNet socket");
    if (made != nullptr) {
      BIO_meth_set_write(made, BioWrite);
      BIO_meth_set_read(made, BioRead);
      BIO_meth_set_ctrl(made, BioControl);
      BIO_meth_set_create(made, BioCreate);
    }
    return made;
  }();
  return method;
}

struct SslFree {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};

int Clamp(std::size_t size) {
  return static_cast<int>(std::min<std::size_t>(size, INT_MAX));
}

}  // namespace
}  // namespace details

struct CTlsSession::Impl {
  std::unique_ptr<SSL, details::SslFree> ssl;
};

std::unique_ptr<CTlsSession> CTlsSession::Create(const TlsContextPtr& context, CServerSocket& socket) {
  auto impl = std::make_unique<Impl>();
  impl->ssl.reset(SSL_new(context.get()));
  BIO* const bio = details::SocketBio() == nullptr ? nullptr : BIO_new(details::SocketBio());
  if (impl->ssl == nullptr || bio == nullptr) {
    BIO_free(bio);
    ERR_clear_error();
    return nullptr;
  }
  BIO_set_data(bio, &socket);
  SSL_set_bio(impl->ssl.get(), bio, bio);
  SSL_set_accept_state(impl->ssl.get());
  return std::unique_ptr<CTlsSession>(new CTlsSession(std::move(impl)));
}

CTlsSession::CTlsSession(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

CTlsSession::~CTlsSession() = default;

IoResult CTlsSession::Handshake() {
  ERR_clear_error();
  const int result = SSL_do_handshake(impl_->ssl.get());
  return {result == 1 ? IoStatus::kDone : StatusOf(result), 0};
}

IoResult CTlsSession::Read(char* data, std::size_t size) {
  ERR_clear_error();
  const int result = SSL_read(impl_->ssl.get(), data, details::Clamp(size));
  if (result > 0) {
    return {IoStatus::kDone, static_cast<std::size_t>(result)};
  }
  return {StatusOf(result), 0};
}

IoResult CTlsSession::WriteOne(std::string_view data) {
  ERR_clear_error();
  const int result = SSL_write(impl_->ssl.get(), data.data(), details::Clamp(data.size()));
  if (result > 0) {
    return {IoStatus::kDone, static_cast<std::size_t>(result)};
  }
  return {StatusOf(result), 0};
}

IoResult CTlsSession::Write(std::string_view first, std::string_view second) {
  if (first.empty() || second.empty()) {
    return WriteOne(first.empty() ? second : first);
  }
  if (first.size() >= details::kRecordBytes) {
    return WriteOne(first);
  }
  // Head and the beginning of the body share a record, and with it a packet.
  std::array<char, details::kRecordBytes> record;
  const std::size_t taken = std::min(second.size(), record.size() - first.size());
  std::memcpy(record.data(), first.data(), first.size());
  std::memcpy(record.data() + first.size(), second.data(), taken);
  return WriteOne({record.data(), first.size() + taken});
}

bool CTlsSession::HasBuffered() const {
  return SSL_has_pending(impl_->ssl.get()) == 1;
}

void CTlsSession::SendCloseNotify() {
  ERR_clear_error();
  SSL_shutdown(impl_->ssl.get());
  ERR_clear_error();
}

const char* CTlsSession::FailureText() const {
  const char* const reason = ERR_reason_error_string(failure_);
  return reason == nullptr ? "the client was silent or left" : reason;
}

IoStatus CTlsSession::StatusOf(int result) {
  switch (SSL_get_error(impl_->ssl.get(), result)) {
    case SSL_ERROR_WANT_READ:
      return IoStatus::kWantRead;
    case SSL_ERROR_WANT_WRITE:
      return IoStatus::kWantWrite;
    case SSL_ERROR_ZERO_RETURN:
      return IoStatus::kEnd;
    default:
      failure_ = ERR_peek_error();
      peer_speaks_http_ = ERR_GET_REASON(failure_) == SSL_R_HTTP_REQUEST;
      ERR_clear_error();
      return IoStatus::kFailed;
  }
}

}  // namespace TansyNet
