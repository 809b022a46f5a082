#include "TansyNet/client/ClientError.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <boost/beast/http/error.hpp>
#include <string>
#include <system_error>

#include "TansyNet/transport/SystemSockets.h"

namespace TansyNet {

namespace {

// Reasons of the TLS library start here; smaller numbers are results of the certificate's verification.
constexpr std::int32_t kFirstTlsReason = 100;

std::string SystemText(std::int32_t number) {
  return std::system_category().message(number);
}

std::string TlsText(std::int32_t number) {
  if (number < kFirstTlsReason) {
    return std::string("certificate not trusted: ") + X509_verify_cert_error_string(number);
  }
  // The texts are loaded here, because an error may have to be described before the first TLS connection is made.
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS, nullptr);
  const char* const reason = ERR_reason_error_string(ERR_PACK(ERR_LIB_SSL, 0, number));
  return "TLS failed: " + (reason != nullptr ? std::string(reason) : "reason " + std::to_string(number));
}

std::string AnswerText(std::int32_t number) {
  return boost::beast::error_code(static_cast<boost::beast::http::error>(number)).message();
}

}  // namespace

std::string ClientErrorText(const ClientError& error) {
  switch (error.kind) {
    case ClientError::kNone:
      return "success";
    case ClientError::kBadUrl:
      return "the address or a header is not usable";
    case ClientError::kResolve:
      return "the server's name was not found: " + details::ResolveErrorText(error.detail);
    case ClientError::kConnect:
      return "no connection: " + SystemText(error.detail);
    case ClientError::kTls:
      return TlsText(error.detail);
    case ClientError::kSend:
      return "sending failed: " + SystemText(error.detail);
    case ClientError::kReceive:
      return "receiving failed: " + SystemText(error.detail);
    case ClientError::kTimeout:
      return "the server took too long";
    case ClientError::kBadAnswer:
      return "the answer is not valid: " + AnswerText(error.detail);
    case ClientError::kTooLarge:
      return "the answer is too large";
    default:
      return "unknown error " + std::to_string(error.kind);
  }
}

}  // namespace TansyNet
