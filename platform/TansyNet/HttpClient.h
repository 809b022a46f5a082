// The host's HTTP library, client side: HTTP/1.1 over TCP or TLS with connections kept and shared by the whole process.
// Proxies of the environment are ignored; redirects are never followed by the library itself.
#ifndef TANSY_NET_HTTP_CLIENT_H
#define TANSY_NET_HTTP_CLIENT_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "TansyNet/HttpServer.h"

namespace TansyNet {

// An absolute URL in its pieces.
struct URL {
  std::string scheme;  // "http" or "https"
  std::string host;    // name or address, without brackets
  std::uint16_t port = 0;
  std::string target = "/";  // path and query, as given

  // False when the text is no absolute http or https URL, names a user, or holds blanks or control characters. A
  // fragment ("#...") is left out.
  static bool Parse(const std::string& text, URL& url);
};

struct CHttpClientRequest {
  std::string url;  // absolute
  std::string method = "GET";
  // Sent as they are, after "Host", which is derived from the URL when missing, unless send_host is false.
  // "Content-Length" and "Transfer-Encoding" are the library's own and left out.
  Headers headers;
  std::string content_type;
  // The body is not copied: it must stay alive until Send returns. Null with size 0 for none (PUT and POST then send
  // "Content-Length: 0").
  const char* body = nullptr;
  std::uint64_t body_size = 0;
  bool send_host = true;
  // Time-outs; 0 waits without limit.
  std::uint32_t connect_timeout_ms = 5000;  // look-up, connection and TLS handshake together
  std::uint32_t send_timeout_ms = 15000;    // without progress
  // Until the first byte of the answer, then for the rest of its head, then without progress.
  std::uint32_t receive_timeout_ms = 15000;
  std::uint64_t max_body_bytes = std::uint64_t{4} << 30;  // of an answer that Send keeps in memory
};

struct CHttpClientResponse {
  std::int32_t status = 0;
  Headers headers;   // standard names in their standard spelling
  std::string body;  // empty while SendForBigRsp delivers pieces
  // As declared; the body's size when the answer did not say it (then 0 while SendForBigRsp still delivers).
  std::uint64_t content_length = 0;

  // Value of a header, name compared without case; "" when absent.
  std::string GetHeader(const std::string& name) const;
};

// How https servers are trusted; process-wide. Certificates must name the host of the URL. A trust file that cannot be
// read fails every https exchange.
struct TlsTrust {
  std::string trust_file;   // PEM, authorities or servers' own certificates; empty: the system's store
  bool accept_any = false;  // an explicit switch for self-signed servers
};

// Any thread; one HttpClient object per exchange or one for many, it holds no state.
class HttpClient {
 public:
  // What went wrong: `kind` is one of the values below, `detail` the number that the system, its resolver, the TLS
  // library or the parser has for it, never 0 after a failure. {0, 0} is success.
  struct Error {
    std::int32_t kind = 0;
    std::int32_t detail = 0;
  };
  enum Kind : std::int32_t {
    kNone = 0,
    kBadUrl = 1,  // or a method or header that would break out of its line
    kResolve = 2,
    kConnect = 3,  // refused, unreachable, or cut during the TLS handshake
    kTls = 4,      // below 100: why the certificate is not trusted
    kSend = 5,     // cut while the request was sent, and no answer came
    kReceive = 6,  // closed before the answer's first byte, or cut within the answer
    kTimeout = 7,
    kBadAnswer = 8,  // not HTTP, header beyond 64 KiB, a length that is not true, an answer that ends too early
    kTooLarge = 9,   // more than max_body_bytes, or than memory holds
  };

  // One exchange. True when a whole answer came, whatever its status; an answer that comes before the whole request is
  // sent (a refusal) ends the sending. Interim answers (1xx) are skipped. A kept connection that turns out to be closed
  // before any byte of the answer came is replaced by a fresh one once. `response` and `error` may be null.
  bool Send(const CHttpClientRequest& request, CHttpClientResponse* response, Error* error);

  // The same, but the answer's body is handed out in pieces (256 KiB each but the last) on the calling thread. `last`
  // is true exactly once, on the final call: with the last bytes, with none for an empty body, or, after a failure,
  // with error set and no data. An exception of the callback ends the exchange and passes through.
  using BigCallback = std::function<void(const CHttpClientResponse& response, const char* data, unsigned int size,
                                         Error error, bool last)>;
  bool SendForBigRsp(const CHttpClientRequest& request, const BigCallback& callback);

  // One line for people.
  static std::string ErrorText(const Error& error);

  // For programs, not for libraries in between. Connections kept under other trust settings are not used again.
  static void SetTlsTrust(const TlsTrust& trust);
  // Kept connections otherwise stay open until somebody sends something after their 4 seconds are over.
  static void CloseIdleConnections();
};

}  // namespace TansyNet

#endif  // TANSY_NET_HTTP_CLIENT_H
