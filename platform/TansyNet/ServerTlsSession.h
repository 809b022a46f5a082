// The TLS side of one connection.
#ifndef TANSY_NET_SERVER_TLS_SESSION_H
#define TANSY_NET_SERVER_TLS_SESSION_H

#include <cstddef>
#include <memory>
#include <string_view>

#include "TansyNet/ServerConnectionSocket.h"
#include "TansyNet/ServerTlsContext.h"

namespace TansyNet {

// Turns the calls of a plain socket into those of an encrypted one; never blocks. Threads: as CServerSocket.
class CTlsSession {
 public:
  // `socket` outlives the session. Null when the TLS library is out of memory.
  static std::unique_ptr<CTlsSession> Create(const TlsContextPtr& context, CServerSocket& socket);
  ~CTlsSession();
  CTlsSession(const CTlsSession&) = delete;
  CTlsSession& operator=(const CTlsSession&) = delete;

  // kDone when the handshake is complete. Failed handshakes of clients that speak plain HTTP are told apart.
  IoResult Handshake();
  bool PeerSpeaksHttp() const { return peer_speaks_http_; }
  // Why the last call failed, in the TLS library's words; for logs.
  const char* FailureText() const;

  IoResult Read(char* data, std::size_t size);
  // What was not written must be offered again, unchanged and with nothing less behind it, in the next call.
  IoResult Write(std::string_view first, std::string_view second);
  // Bytes that the socket no longer has, but no Read has returned yet.
  bool HasBuffered() const;
  // Tells the peer that nothing follows, if the socket takes it.
  void SendCloseNotify();

 private:
  struct Impl;
  explicit CTlsSession(std::unique_ptr<Impl> impl);

  IoResult WriteOne(std::string_view data);
  IoStatus StatusOf(int result);

  std::unique_ptr<Impl> impl_;
  bool peer_speaks_http_ = false;
  unsigned long failure_ = 0;  // the TLS library's code; 0 when the connection was at fault, not what came over it
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_TLS_SESSION_H
