// The secure side of a client's connection.
#ifndef TANSY_NET_CLIENT_CLIENT_TLS_H
#define TANSY_NET_CLIENT_CLIENT_TLS_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "TansyNet/client/ClientError.h"
#include "TansyNet/client/ClientSocket.h"
#include "TansyNet/client/ClientTlsContext.h"
#include "TansyNet/transport/TlsSession.h"

namespace TansyNet::details {

// Threads: one at a time. The socket must outlive the session.
class CClientTls {
 public:
  explicit CClientTls(CClientSocket& socket);
  ~CClientTls();
  CClientTls(const CClientTls&) = delete;
  CClientTls& operator=(const CClientTls&) = delete;

  // Shakes hands with the server called `host` and checks its certificate. Waits at most this long in all.
  bool Handshake(const std::string& host, std::uint16_t port, int timeout_ms, ClientError& error);

  IoResult Read(char* data, std::size_t size);
  IoResult Write(std::string_view first, std::string_view second);
  // Returns true while a message of the secure protocol itself waits to be written.
  bool WantsToWrite() const { return session_->WantsToWrite(); }
  // Tells the peer that nothing more will come, without waiting for its answer.
  void SayGoodbye();

 private:
  bool Prepare(const std::string& host, ClientError& error);
  bool ReportHandshakeFailure(ClientError& error) const;

  CClientSocket& socket_;
  const std::shared_ptr<CClientTlsContext> context_;
  SessionPlace place_;
  std::unique_ptr<CTlsSession> session_;  // set from Handshake on
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_CLIENT_TLS_H
