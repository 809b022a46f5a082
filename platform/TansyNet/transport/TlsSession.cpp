#include "TansyNet/transport/TlsSession.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/sslerr.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace TansyNet {

// Lets the TLS library read and write through our socket, because its own code uses plain system calls, which raise
// SIGPIPE on POSIX systems when the peer is gone.
struct CTlsSession::SocketBio {
  static int Read(BIO* bio, char* data, std::size_t size, std::size_t* done) {
    auto& session = *static_cast<CTlsSession*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const IoResult result = session.socket_.Read(data, size);
    *done = result.bytes;
    if (result.MustWait()) {
      BIO_set_retry_read(bio);
    } else if (result.status == IoStatus::kEnd) {
      BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
    } else if (result.status == IoStatus::kFailed) {
      session.read_error_ = result.error;
    }
    return result.status == IoStatus::kDone ? 1 : 0;
  }

  static int Write(BIO* bio, const char* data, std::size_t size, std::size_t* done) {
    auto& session = *static_cast<CTlsSession*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const IoResult result = session.socket_.Write({data, size}, {});
    *done = result.bytes;
    if (result.status == IoStatus::kDone) {
      return 1;
    }
    if (!result.MustWait()) {
      session.write_error_ = result.error;
    }
    // A failure is reported as "later" too, because after a real failure the library promises nothing about reading,
    // and the answer of a server that refused the rest of a body must still be read.
    BIO_set_retry_write(bio);
    return 0;
  }

  static long Control(BIO* bio, int command, long, void*) {
    if (command == BIO_CTRL_EOF) {
      return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
    }
    // Nothing is buffered, so flushing always succeeds; no other command is needed.
    return command == BIO_CTRL_FLUSH ? 1 : 0;
  }

  static int Create(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
  }

  static BIO_METHOD* Method() {
    // The method lives as long as the process, because sessions of other threads may use it until then.
    static BIO_METHOD* const method = [] {
      BIO_METHOD* const made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "TansyNet socket");
      if (made != nullptr) {
        BIO_meth_set_read_ex(made, &SocketBio::Read);
        BIO_meth_set_write_ex(made, &SocketBio::Write);
        BIO_meth_set_ctrl(made, &SocketBio::Control);
        BIO_meth_set_create(made, &SocketBio::Create);
      }
      return made;
    }();
    return method;
  }
};

namespace details {
namespace {

// The number of bytes that one record of the protocol holds.
constexpr std::size_t kRecordBytes = SSL3_RT_MAX_PLAIN_LENGTH;

}  // namespace
}  // namespace details

std::unique_ptr<CTlsSession> CTlsSession::Create(SSL_CTX* context, ISocket& socket, Side side) {
  SSL* const ssl = SSL_new(context);
  BIO* const bio = ssl == nullptr || SocketBio::Method() == nullptr ? nullptr : BIO_new(SocketBio::Method());
  if (bio == nullptr) {
    SSL_free(ssl);
    ERR_clear_error();
    return nullptr;
  }
  SSL_set_bio(ssl, bio, bio);
  std::unique_ptr<CTlsSession> session(new CTlsSession(ssl, socket));
  BIO_set_data(bio, session.get());
  if (side == Side::kServer) {
    SSL_set_accept_state(ssl);
  } else {
    SSL_set_connect_state(ssl);
  }
  return session;
}

CTlsSession::~CTlsSession() {
  SSL_free(ssl_);
}

IoResult CTlsSession::Handshake() {
  ERR_clear_error();
  return Outcome(SSL_do_handshake(ssl_), 0);
}

IoResult CTlsSession::Read(char* data, std::size_t size) {
  ERR_clear_error();
  std::size_t got = 0;
  const int result = SSL_read_ex(ssl_, data, size, &got);
  const IoResult outcome = Outcome(result, got);
  wants_to_write_ = outcome.status == IoStatus::kWantWrite;
  return outcome;
}

IoResult CTlsSession::WriteOne(std::string_view data) {
  ERR_clear_error();
  std::size_t sent = 0;
  const int result = SSL_write_ex(ssl_, data.data(), data.size(), &sent);
  return Outcome(result, sent);
}

IoResult CTlsSession::Write(std::string_view first, std::string_view second) {
  if (write_error_ != 0) {
    return {.status = IoStatus::kFailed, .error = write_error_};
  }
  if (first.empty() || second.empty() || first.size() >= details::kRecordBytes) {
    return WriteOne(first.empty() ? second : first);
  }
  std::array<char, details::kRecordBytes> record;
  const std::size_t taken = std::min(second.size(), record.size() - first.size());
  std::memcpy(record.data(), first.data(), first.size());
  std::memcpy(record.data() + first.size(), second.data(), taken);
  return WriteOne({record.data(), first.size() + taken});
}

bool CTlsSession::HasBuffered() const {
  return SSL_has_pending(ssl_) == 1;
}

void CTlsSession::SendCloseNotify() {
  if (write_error_ == 0 && SSL_is_init_finished(ssl_) == 1) {
    ERR_clear_error();
    SSL_shutdown(ssl_);
    ERR_clear_error();
  }
}

bool CTlsSession::PeerSpeaksHttp() const {
  return FailureReason() == SSL_R_HTTP_REQUEST;
}

int CTlsSession::FailureReason() const {
  return ERR_GET_REASON(failure_);
}

const char* CTlsSession::FailureText() const {
  const char* const reason = ERR_reason_error_string(failure_);
  return reason == nullptr ? "the client was silent or left" : reason;
}

IoResult CTlsSession::Outcome(int result, std::size_t bytes) {
  if (result == 1) {
    return {.status = IoStatus::kDone, .bytes = bytes};
  }
  const int reason = SSL_get_error(ssl_, result);
  failure_ = reason == SSL_ERROR_SSL ? ERR_peek_last_error() : 0;
  ERR_clear_error();
  switch (reason) {
    case SSL_ERROR_WANT_READ:
      return {.status = IoStatus::kWantRead};
    case SSL_ERROR_WANT_WRITE:
      if (write_error_ != 0) {
        return {.status = IoStatus::kFailed, .error = write_error_};
      }
      return {.status = IoStatus::kWantWrite};
    case SSL_ERROR_ZERO_RETURN:
      return {.status = IoStatus::kEnd};
    case SSL_ERROR_SYSCALL:
      return {.status = IoStatus::kFailed, .error = read_error_};
    default:
      break;
  }
  if (FailureReason() == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
    failure_ = 0;
    return {.status = IoStatus::kEnd, .truncated = true};
  }
  return {.status = IoStatus::kFailed, .error = FailureReason()};
}

}  // namespace TansyNet
