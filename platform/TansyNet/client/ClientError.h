// Says why an exchange failed.
#ifndef TANSY_NET_CLIENT_CLIENT_ERROR_H
#define TANSY_NET_CLIENT_CLIENT_ERROR_H

#include <cstdint>
#include <string>

namespace TansyNet {

// `kind` is one of the values below. `detail` is the number that the system, its resolver, the TLS library or the
// parser has for the failure; it is never 0 after a failure. {0, 0} is success.
struct ClientError {
  enum Kind : std::int32_t {
    kNone = 0,
    kBadUrl = 1,  // also a method or header that would break out of its line
    kResolve = 2,
    kConnect = 3,  // refused, unreachable, or cut during the TLS handshake
    kTls = 4,      // below 100: why the certificate is not trusted
    kSend = 5,     // cut while the request was sent, and no answer came
    kReceive = 6,  // closed before the answer's first byte, or cut within the answer
    kTimeout = 7,
    kBadAnswer = 8,  // no HTTP, a header beyond 64 KiB, a wrong length, an answer that ends too early
    kTooLarge = 9,   // more than max_body_bytes, or more than fits into memory
  };

  std::int32_t kind = kNone;
  std::int32_t detail = 0;
};

// Describes an error in one line for people.
std::string ClientErrorText(const ClientError& error);

}  // namespace TansyNet

#endif  // TANSY_NET_CLIENT_CLIENT_ERROR_H
