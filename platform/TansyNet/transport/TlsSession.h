// TLS over one socket, for the server and the client of the library.
#ifndef TANSY_NET_TRANSPORT_TLS_SESSION_H
#define TANSY_NET_TRANSPORT_TLS_SESSION_H

#include <openssl/types.h>

#include <cstddef>
#include <memory>
#include <string_view>

#include "TansyNet/transport/Socket.h"

namespace TansyNet {

// Encrypts what goes over a plain socket. It never blocks. Threads: as for ISocket.
class CTlsSession {
 public:
  enum class Side { kServer, kClient };

  // `socket` must outlive the session. Returns null when the TLS library is out of memory.
  static std::unique_ptr<CTlsSession> Create(SSL_CTX* context, ISocket& socket, Side side);
  ~CTlsSession();
  CTlsSession(const CTlsSession&) = delete;
  CTlsSession& operator=(const CTlsSession&) = delete;

  // Gives the library's own object, for settings and questions that only one of the two sides has.
  SSL* Native() const { return ssl_; }

  // Returns kDone when the handshake is complete.
  IoResult Handshake();
  // Says after a failed call whether the peer speaks plain HTTP.
  bool PeerSpeaksHttp() const;
  // Gives the reason of a failed call as a number of the TLS library. It is 0 when the connection failed and not what
  // came over it; `SocketError` is then the system's number, or 0 when the peer just left.
  int FailureReason() const;
  int SocketError() const { return write_error_ != 0 ? write_error_ : read_error_; }
  // Gives the same in words, for logs.
  const char* FailureText() const;

  IoResult Read(char* data, std::size_t size);
  // Bytes that were not written must be offered again first, unchanged, in the next call. The end of `first` and the
  // start of `second` share a record, so that a small message is one packet.
  IoResult Write(std::string_view first, std::string_view second);
  // Returns true when there are bytes that the socket no longer has and no Read has returned yet.
  bool HasBuffered() const;
  // Returns true while a message of the secure protocol itself waits to be written.
  bool WantsToWrite() const { return wants_to_write_; }
  // Tells the peer that nothing follows, if the handshake is complete and the socket takes it.
  void SendCloseNotify();

 private:
  struct SocketBio;

  CTlsSession(SSL* ssl, ISocket& socket) : ssl_(ssl), socket_(socket) {}
  IoResult WriteOne(std::string_view data);
  IoResult Outcome(int result, std::size_t bytes);

  SSL* const ssl_;
  ISocket& socket_;
  int write_error_ = 0;  // the socket's error; what the peer sent before it went can still be read
  int read_error_ = 0;
  bool wants_to_write_ = false;
  unsigned long failure_ = 0;  // code of the TLS library
};

}  // namespace TansyNet

#endif  // TANSY_NET_TRANSPORT_TLS_SESSION_H
