#include "TansyNet/ClientTls.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <new>

#include "TansyNet/ClientTlsContext.h"

namespace TansyNet::details {

// Lets the TLS library read and write through our socket, which knows about signals and closed peers.
struct TlsTransport {
  static int Read(BIO* bio, char* data, std::size_t size, std::size_t* done) {
    auto& owner = *static_cast<CClientTls*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const IoResult result = owner.socket_.Read(data, size);
    *done = result.bytes;
    if (result.status == IoResult::Status::kAgain) {
      BIO_set_retry_read(bio);
    } else if (result.status == IoResult::Status::kEnd) {
      BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
    } else if (result.status == IoResult::Status::kFailed) {
      owner.read_error_ = result.error;
    }
    return result.status == IoResult::Status::kDone ? 1 : 0;
  }

  static int Write(BIO* bio, const char* data, std::size_t size, std::size_t* done) {
    auto& owner = *static_cast<CClientTls*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const IoResult result = owner.socket_.Write({data, size}, {});
    *done = result.bytes;
    if (result.status == IoResult::Status::kDone) {
      return 1;
    }
    if (result.status == IoResult::Status::kFailed) {
      owner.write_error_ = result.error;
    }
    // A failure is reported as "later" too: after a real one the library promises nothing about reading, and the answer
    // of a server that refused the rest of a body must still be read.
    BIO_set_retry_write(bio);
    return 0;
  }

  static long Control(BIO* bio, int command, long, void*) {
    if (command == BIO_CTRL_EOF) {
      return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
    }
    return command == BIO_CTRL_FLUSH ? 1 : 0;
  }

  static int Create(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
  }

  static BIO_METHOD* Method() {
    static BIO_METHOD* const method = [] {
      BIO_METHOD* const made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "client socket");
      if (made != nullptr) {
        BIO_meth_set_read_ex(made, &TlsTransport::Read);
        BIO_meth_set_write_ex(made, &TlsTransport::Write);
        BIO_meth_set_ctrl(made, &TlsTransport::Control);
        BIO_meth_set_create(made, &TlsTransport::Create);
      }
      return made;
    }();
    return method;
  }
};

namespace {

using Clock = std::chrono::steady_clock;

// What one record of the protocol holds.
constexpr std::size_t kRecordBytes = std::size_t{16} * 1024;

// What the library's macro does, whose cast this project's warnings refuse.
bool AnnounceName(SSL* ssl, std::string host) {
  return SSL_ctrl(ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, host.data()) == 1;
}

int LastReason() {
  const int reason = ERR_GET_REASON(ERR_peek_last_error());
  return reason != 0 ? reason : SSL_R_LIBRARY_BUG;
}

}  // namespace

CClientTls::CClientTls(CClientSocket& socket) : socket_(socket), context_(CTlsContext::Current()) {}

CClientTls::~CClientTls() {
  SSL_free(ssl_);
}

bool CClientTls::Prepare(const std::string& host, HttpClient::Error& error) {
  if (context_->Get() == nullptr) {
    error = {HttpClient::kTls, context_->Failure()};
    return false;
  }
  ssl_ = SSL_new(context_->Get());
  BIO* const transport = ssl_ != nullptr ? BIO_new(TlsTransport::Method()) : nullptr;
  if (transport == nullptr) {
    error = {HttpClient::kTls, LastReason()};
    return false;
  }
  BIO_set_data(transport, this);
  SSL_set_bio(ssl_, transport, transport);
  SSL_set_app_data(ssl_, this);
  bool named = true;
  if (IsNumericAddress(host)) {
    named = X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_), host.c_str()) == 1;
  } else {
    SSL_set_hostflags(ssl_, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    // Servers with several certificates choose by the name; an address is not a name and may not be sent as one.
    named = SSL_set1_host(ssl_, host.c_str()) == 1 && AnnounceName(ssl_, host);
  }
  if (!named) {
    error = {HttpClient::kTls, LastReason()};
  }
  return named;
}

bool CClientTls::Handshake(const std::string& host, std::uint16_t port, int timeout_ms, HttpClient::Error& error) {
  const auto until = Clock::now() + std::chrono::milliseconds(timeout_ms);
  ERR_clear_error();
  if (!Prepare(host, error)) {
    return false;
  }
  session_key_ = host + ":" + std::to_string(port);
  context_->OfferSession(ssl_, session_key_);
  while (true) {
    ERR_clear_error();
    const int result = SSL_connect(ssl_);
    if (result == 1) {
      return true;
    }
    const int reason = SSL_get_error(ssl_, result);
    const bool again = reason == SSL_ERROR_WANT_READ || reason == SSL_ERROR_WANT_WRITE;
    if (!again || write_error_ != 0) {
      return ReportHandshakeFailure(error);
    }
    int left = timeout_ms;
    if (timeout_ms >= 0) {
      left = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count());
    }
    if ((timeout_ms >= 0 && left <= 0) ||
        !socket_.Wait(reason == SSL_ERROR_WANT_READ, reason == SSL_ERROR_WANT_WRITE, left)) {
      error = {HttpClient::kTimeout, CClientSocket::TimedOut()};
      return false;
    }
  }
}

bool CClientTls::ReportHandshakeFailure(HttpClient::Error& error) const {
  const long verified = SSL_get_verify_result(ssl_);
  const int reason = ERR_GET_REASON(ERR_peek_last_error());
  if (context_->VerifiesServers() && verified != X509_V_OK) {
    error = {HttpClient::kTls, static_cast<std::int32_t>(verified)};
  } else if (write_error_ != 0 || read_error_ != 0) {
    error = {HttpClient::kConnect, write_error_ != 0 ? write_error_ : read_error_};
  } else if (reason == 0 || reason == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
    error = {HttpClient::kConnect, CClientSocket::ConnectionReset()};
  } else {
    error = {HttpClient::kTls, reason};
  }
  ERR_clear_error();
  return false;
}

IoResult CClientTls::Interpret(int result) {
  const int reason = SSL_get_error(ssl_, result);
  const int library_reason = ERR_GET_REASON(ERR_peek_last_error());
  ERR_clear_error();
  switch (reason) {
    case SSL_ERROR_WANT_READ:
      return {IoResult::Status::kAgain, 0, 0, false};
    case SSL_ERROR_WANT_WRITE:
      if (write_error_ != 0) {
        return {IoResult::Status::kFailed, 0, write_error_, false};
      }
      return {IoResult::Status::kAgain, 0, 0, false};
    case SSL_ERROR_ZERO_RETURN:
      return {IoResult::Status::kEnd, 0, 0, false};
    case SSL_ERROR_SYSCALL:
      return {IoResult::Status::kFailed, 0, read_error_ != 0 ? read_error_ : CClientSocket::ConnectionReset(), false};
    default:
      if (library_reason == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
        return {IoResult::Status::kEnd, 0, 0, true};
      }
      return {IoResult::Status::kFailed, 0, library_reason != 0 ? library_reason : CClientSocket::ConnectionReset(),
              false};
  }
}

IoResult CClientTls::Read(char* data, std::size_t size) {
  ERR_clear_error();
  std::size_t got = 0;
  const int result = SSL_read_ex(ssl_, data, size, &got);
  if (result == 1) {
    wants_to_write_ = false;
    return {IoResult::Status::kDone, got, 0, false};
  }
  wants_to_write_ = SSL_get_error(ssl_, result) == SSL_ERROR_WANT_WRITE && write_error_ == 0;
  return Interpret(result);
}

IoResult CClientTls::Write(std::string_view first, std::string_view second) {
  ERR_clear_error();
  if (write_error_ != 0) {
    return {IoResult::Status::kFailed, 0, write_error_, false};
  }
  std::array<char, kRecordBytes> record;
  std::string_view piece = first.empty() ? second : first;
  if (!first.empty() && !second.empty() && first.size() < record.size()) {
    const std::size_t joined = std::min(second.size(), record.size() - first.size());
    std::memcpy(record.data(), first.data(), first.size());
    std::memcpy(record.data() + first.size(), second.data(), joined);
    piece = {record.data(), first.size() + joined};
  }
  std::size_t sent = 0;
  const int result = SSL_write_ex(ssl_, piece.data(), piece.size(), &sent);
  if (result == 1) {
    return {IoResult::Status::kDone, sent, 0, false};
  }
  return Interpret(result);
}

void CClientTls::SayGoodbye() {
  if (ssl_ != nullptr && write_error_ == 0 && SSL_is_init_finished(ssl_) == 1) {
    ERR_clear_error();
    SSL_shutdown(ssl_);
    ERR_clear_error();
  }
}

}  // namespace TansyNet::details
