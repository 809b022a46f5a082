// The bytes of a connection, plain or encrypted.
#ifndef TANSY_NET_SERVER_SERVER_TRANSPORT_H
#define TANSY_NET_SERVER_SERVER_TRANSPORT_H

#include <cstddef>
#include <memory>
#include <string_view>

#include "TansyNet/server/ServerSocket.h"
#include "TansyNet/server/ServerTlsContext.h"
#include "TansyNet/transport/TlsSession.h"

namespace TansyNet {

// It never blocks. Threads: as for CServerSocket.
class CServerTransport {
 public:
  // `tls` is null for plain HTTP.
  CServerTransport(std::unique_ptr<CServerSocket> socket, const TlsContextPtr& tls);

  CServerSocket& Socket() { return *socket_; }
  // Returns false when an encrypted connection could not be set up.
  bool IsUsable() const { return !encrypted_ || tls_ != nullptr; }
  bool IsEncrypted() const { return encrypted_; }

  IoResult Handshake() { return tls_->Handshake(); }
  const char* HandshakeFailure() const { return tls_->FailureText(); }
  // Is called after a failed handshake. When the client speaks plain HTTP, the connection goes on without encryption;
  // otherwise the result is false.
  bool FallBackToPlain();

  IoResult Read(char* data, std::size_t size);
  // Bytes that were not written must be offered again first, unchanged, in the next call.
  IoResult Write(std::string_view first, std::string_view second = {});
  // Returns true when Read can return bytes although the socket has none.
  bool HasBuffered() const { return tls_ != nullptr && tls_->HasBuffered(); }
  void ShutdownSend();

 private:
  std::unique_ptr<CServerSocket> socket_;
  bool encrypted_;
  std::unique_ptr<CTlsSession> tls_;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_SERVER_TRANSPORT_H
