#include "TansyNet/client/ClientTls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <chrono>

namespace TansyNet::details {

namespace {

using Clock = std::chrono::steady_clock;

// Does what the library's macro does. The macro is not used, because it contains a cast that this project's warnings
// refuse.
bool AnnounceName(SSL* ssl, std::string host) {
  return SSL_ctrl(ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, host.data()) == 1;
}

int LastReason() {
  const int reason = ERR_GET_REASON(ERR_peek_last_error());
  return reason != 0 ? reason : SSL_R_LIBRARY_BUG;
}

// Gives every failure a number: when the server just left, the connection counts as cut.
IoResult WithNumber(IoResult result) {
  if (result.status == IoStatus::kFailed && result.error == 0) {
    result.error = ConnectionResetError();
  }
  return result;
}

}  // namespace

CClientTls::CClientTls(CClientSocket& socket) : socket_(socket), context_(CClientTlsContext::Current()) {}

CClientTls::~CClientTls() = default;

bool CClientTls::Prepare(const std::string& host, ClientError& error) {
  if (context_->Get() == nullptr) {
    error = {ClientError::kTls, context_->Failure()};
    return false;
  }
  session_ = CTlsSession::Create(context_->Get(), socket_, CTlsSession::Side::kClient);
  if (session_ == nullptr) {
    error = {ClientError::kTls, SSL_R_LIBRARY_BUG};
    return false;
  }
  SSL* const ssl = session_->Native();
  bool named = true;
  if (IsNumericAddress(host)) {
    named = X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str()) == 1;
  } else {
    SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    // Servers with several certificates choose by the name. An address is not a name, so it is not announced as one.
    named = SSL_set1_host(ssl, host.c_str()) == 1 && AnnounceName(ssl, host);
  }
  if (!named) {
    error = {ClientError::kTls, LastReason()};
  }
  return named;
}

bool CClientTls::Handshake(const std::string& host, std::uint16_t port, int timeout_ms, ClientError& error) {
  const auto until = Clock::now() + std::chrono::milliseconds(timeout_ms);
  ERR_clear_error();
  if (!Prepare(host, error)) {
    return false;
  }
  place_ = {context_.get(), host + ":" + std::to_string(port)};
  CClientTlsContext::ResumeAndKeep(session_->Native(), place_);
  while (true) {
    const IoResult result = session_->Handshake();
    if (result.status == IoStatus::kDone) {
      return true;
    }
    if (!result.MustWait()) {
      return ReportHandshakeFailure(error);
    }
    int left = timeout_ms;
    if (timeout_ms >= 0) {
      left = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count());
    }
    const bool for_read = result.status == IoStatus::kWantRead;
    if ((timeout_ms >= 0 && left <= 0) || !socket_.Wait(for_read, !for_read, left)) {
      error = {ClientError::kTimeout, TimedOutError()};
      return false;
    }
  }
}

bool CClientTls::ReportHandshakeFailure(ClientError& error) const {
  const long verified = SSL_get_verify_result(session_->Native());
  const int reason = session_->FailureReason();
  if (context_->VerifiesServers() && verified != X509_V_OK) {
    error = {ClientError::kTls, static_cast<std::int32_t>(verified)};
  } else if (session_->SocketError() != 0) {
    error = {ClientError::kConnect, session_->SocketError()};
  } else if (reason == 0) {
    error = {ClientError::kConnect, ConnectionResetError()};
  } else {
    error = {ClientError::kTls, reason};
  }
  return false;
}

IoResult CClientTls::Read(char* data, std::size_t size) {
  return WithNumber(session_->Read(data, size));
}

IoResult CClientTls::Write(std::string_view first, std::string_view second) {
  return WithNumber(session_->Write(first, second));
}

void CClientTls::SayGoodbye() {
  if (session_ != nullptr) {
    session_->SendCloseNotify();
  }
}

}  // namespace TansyNet::details
