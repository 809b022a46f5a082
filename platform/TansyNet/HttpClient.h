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

  // False when the text is no absolute http or https URL, or holds blanks or control characters.
  static bool Parse(const std::string& text, URL& url);
};

struct CHttpClientRequest {
  std::string url;  // absolute
  std::string method = "GET";
  Headers headers;  // sent as they are; "Host" is derived from the URL when missing, unless send_host is false
  std::string content_type;
  // The body is not copied: it must stay alive until Send returns. Null with size 0 for none (PUT and POST then send
  // "Content-Length: 0").
  const char* body = nullptr;
  std::uint64_t body_size = 0;
  bool send_host = true;
  std::uint32_t connect_timeout_ms = 5000;
  std::uint32_t send_timeout_ms = 15000;                  // without progress
  std::uint32_t receive_timeout_ms = 15000;               // until the first byte of the answer, then without progress
  std::uint64_t max_body_bytes = std::uint64_t{4} << 30;  // of an answer that Send keeps in memory
};

struct CHttpClientResponse {
  std::int32_t status = 0;
  Headers headers;                   // standard names in their standard spelling
  std::string body;                  // empty while SendForBigRsp delivers pieces
  std::uint64_t content_length = 0;  // as declared; the body's size when it came in chunks

  // Value of a header, name compared without case; "" when absent.
  std::string GetHeader(const std::string& name) const;
};

// How https servers are trusted; process-wide.
struct TlsTrust {
  std::string trust_file;   // PEM; empty: the system's store
  bool accept_any = false;  // an explicit switch for self-signed servers
};

// Any thread; one HttpClient object per exchange or one for many, it holds no state.
class HttpClient {
 public:
  // What went wrong: `kind` is one of the values below, `detail` the system's or TLS library's number. {0, 0} is
  // success.
  struct Error {
    std::int32_t kind = 0;
    std::int32_t detail = 0;
  };
  enum Kind : std::int32_t {
    kNone = 0,
    kBadUrl = 1,
    kResolve = 2,
    kConnect = 3,
    kTls = 4,
    kSend = 5,
    kReceive = 6,
    kTimeout = 7,
    kBadAnswer = 8,  // not HTTP, header beyond 64 KiB, a length that is not true
    kTooLarge = 9,
  };

  // One exchange. True when a whole answer came, whatever its status. A kept connection that turns out to be closed
  // before any byte of the answer came is replaced by a fresh one once.
  bool Send(const CHttpClientRequest& request, CHttpClientResponse* response, Error* error);

  // Receives the answer piece by piece (at most 256 KiB each) on the calling thread's behalf. `last` is true exactly
  // once, on the final call: with the last bytes, with none for an empty body, or, after a failure, with error set and
  // no data.
  using BigCallback = std::function<void(const CHttpClientResponse& response, const char* data, unsigned int size,
                                         Error error, bool last)>;
  bool SendForBigRsp(const CHttpClientRequest& request, const BigCallback& callback);

  // For programs, not for libraries in between.
  static void SetTlsTrust(const TlsTrust& trust);
  static void CloseIdleConnections();
};

}  // namespace TansyNet

#endif  // TANSY_NET_HTTP_CLIENT_H
