// The host's HTTP library, client side: HTTP/1.1 over TCP or TLS with connections kept and shared by the whole process.
// Proxies of the environment are ignored; redirects are never followed by the library itself.
#ifndef TANSY_NET_HTTP_CLIENT_H
#define TANSY_NET_HTTP_CLIENT_H

#include <string>

#include "TansyNet/client/BigAnswerCallback.h"
#include "TansyNet/client/ClientError.h"
#include "TansyNet/client/TlsTrust.h"
#include "TansyNet/wire/ClientMessages.h"
#include "TansyNet/wire/Headers.h"
#include "TansyNet/wire/Url.h"

namespace TansyNet {

// Any thread; one HttpClient object per exchange or one for many, it holds no state.
class HttpClient {
 public:
  // What went wrong; its kinds are members of this class too (HttpClient::kTimeout).
  using Error = ClientError;
  using enum ClientError::Kind;

  // One exchange. True when a whole answer came, whatever its status; an answer that comes before the whole request is
  // sent (a refusal) ends the sending. Interim answers (1xx) are skipped. A GET or HEAD whose kept connection turns out
  // to be closed before any byte of the answer came is sent once more, on a fresh connection. Every other request is
  // sent once: after such a failure nobody knows whether it was carried out. `response` and `error` may be null.
  bool Send(const CHttpClientRequest& request, CHttpClientResponse* response, Error* error);

  // The same, but the answer's body is handed out in pieces (256 KiB each but the last) on the calling thread. `last`
  // is true exactly once, on the final call: with the last bytes, with none for an empty body, or, after a failure,
  // with error set and no data. An exception of the callback ends the exchange and passes through.
  using BigCallback = BigAnswerCallback;
  bool SendForBigRsp(const CHttpClientRequest& request, const BigCallback& callback);

  // One line for people.
  static std::string ErrorText(const Error& error);

  // For programs, not for libraries in between. Connections kept under other trust settings are not used again.
  static void SetTlsTrust(const TlsTrust& trust);
  // Is told of every exchange of this process: before it is sent, with `answer` null, and when it is over, with the
  // head of the answer (status 0 when none came) and the error. Called on the thread that sends; must not throw. For
  // programs; set once, before anything is sent. Null takes it away.
  using Observer =
      std::function<void(const CHttpClientRequest& request, const CHttpClientResponse* answer, const Error& error)>;
  static void SetObserver(Observer observer);
  // Kept connections otherwise stay open until somebody sends something after their 4 seconds are over.
  static void CloseIdleConnections();
};

}  // namespace TansyNet

#endif  // TANSY_NET_HTTP_CLIENT_H
