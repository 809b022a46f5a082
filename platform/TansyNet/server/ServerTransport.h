// A connection's bytes, in the clear or encrypted.
#ifndef TANSY_NET_SERVER_SERVER_TRANSPORT_H
#define TANSY_NET_SERVER_SERVER_TRANSPORT_H

#include <cstddef>
#include <memory>
#include <string_view>

#include "TansyNet/server/ServerSocket.h"
#include "TansyNet/server/ServerTlsContext.h"
#include "TansyNet/transport/TlsSession.h"

namespace TansyNet {

// Never blocks. Threads: as CServerSocket.
class CServerTransport {
 public:
  // `tls` is null for plain HTTP.
  CServerTransport(std::unique_ptr<CServerSocket> socket, const TlsContextPtr& tls);

  CServerSocket& Socket() { return *socket_; }
  // False when an encrypted connection could not be set up.
  bool IsUsable() const { return !encrypted_ || tls_ != nullptr; }
  bool IsEncrypted() const { return encrypted_; }

  IoResult Handshake() { return tls_->Handshake(); }
  const char* HandshakeFailure() const { return tls_->FailureText(); }
  // After a failed handshake with a client that speaks plain HTTP: what follows is in the clear. False for all others.
  bool FallBackToPlain();

  IoResult Read(char* data, std::size_t size);
  // What was not written is offered again first, unchanged, in the next call.
  IoResult Write(std::string_view first, std::string_view second = {});
  // Bytes that Read can return though the socket has none.
  bool HasBuffered() const { return tls_ != nullptr && tls_->HasBuffered(); }
  void ShutdownSend();

 private:
  std::unique_ptr<CServerSocket> socket_;
  bool encrypted_;
  std::unique_ptr<CTlsSession> tls_;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_SERVER_TRANSPORT_H
