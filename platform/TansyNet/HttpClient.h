// The host's HTTP library, client side: HTTP/1.1 over TCP or TLS with connections kept and shared by the whole process.
// Proxies of the environment are ignored; redirects are never followed by the library itself.
#ifndef TANSY_NET_HTTP_CLIENT_H
#define TANSY_NET_HTTP_CLIENT_H

#include <cstddef>
#include <functional>
#include <string>

#include "TansyNet/client/BigAnswerCallback.h"
#include "TansyNet/client/ClientError.h"
#include "TansyNet/client/TlsTrust.h"
#include "TansyNet/wire/ClientMessages.h"
#include "TansyNet/wire/Headers.h"
#include "TansyNet/wire/Url.h"

namespace TansyNet {

// Threads: any. It holds no state, so one HttpClient object may serve one exchange or many.
class HttpClient {
 public:
  // Says what went wrong; its kinds are members of this class too (HttpClient::kTimeout).
  using Error = ClientError;
  using enum ClientError::Kind;

  // Does one exchange. Returns true when a whole answer came, whatever its status; an answer that comes before the
  // whole request is sent (a refusal) ends the sending. Interim answers (1xx) are skipped. When a kept connection turns
  // out to be closed before any byte of the answer came, a GET or HEAD is sent once more, on a fresh connection. Every
  // other request is sent once, because after such a failure nobody knows whether it was carried out. `response` and
  // `error` may be null.
  bool Send(const CHttpClientRequest& request, CHttpClientResponse* response, Error* error);

  // Does the same, but hands out the answer's body in pieces on the calling thread; each piece but the last has 256
  // KiB. `last` is true exactly once, on the final call: with the last bytes, with none for an empty body, or, after a
  // failure, with error set and no data. An exception of the callback ends the exchange and reaches the caller.
  using BigCallback = BigAnswerCallback;
  bool SendForBigRsp(const CHttpClientRequest& request, const BigCallback& callback);

  // Describes an error in one line for people.
  static std::string ErrorText(const Error& error);

  // Sets whom secure connections trust. This is for programs, not for libraries in between. Connections kept under
  // other trust settings are not used again.
  static void SetTlsTrust(const TlsTrust& trust);
  // The observer is told of every exchange of this process: before it is sent, with `answer` null, and when it is over,
  // with the head of the answer (status 0 when none came) and the error. It is called on the thread that sends, and
  // must not throw. It is for programs, and set once before anything is sent. Null removes it.
  using Observer =
      std::function<void(const CHttpClientRequest& request, const CHttpClientResponse* answer, const Error& error)>;
  static void SetObserver(Observer observer);
  // The pace is called with the size of each slice of a request's body before it is sent (at most 16 KiB), and with the
  // number of bytes of an answer's body that have come; while it waits, nothing more is sent or read. It is called on
  // the threads that send, several at once, and must not throw. It is for programs, and set once before anything is
  // sent. Null removes it.
  using Pace = std::function<void(std::size_t bytes)>;
  static void SetPace(Pace pace);
  // Closes kept connections. Without this call they stay open until somebody sends something after their 4 seconds are
  // over.
  static void CloseIdleConnections();
};

}  // namespace TansyNet

#endif  // TANSY_NET_HTTP_CLIENT_H
