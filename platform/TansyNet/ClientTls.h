// TLS of the client: one process-wide context made from the trust settings, and a session over one socket.
#ifndef TANSY_NET_CLIENT_TLS_H
#define TANSY_NET_CLIENT_TLS_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "TansyNet/ClientConnectionSocket.h"
#include "TansyNet/HttpClient.h"

struct bio_st;
struct ssl_ctx_st;
struct ssl_st;

namespace TansyNet::details {

class CTlsContext;

// Replaces the context for connections opened from now on.
void SetClientTrust(const TlsTrust& trust);
// Counts the replacements, so that connections made under other terms can be told apart.
std::uint64_t ClientTrustGeneration();
// Adds the authorities that the operating system trusts. False when they cannot be had.
bool AddSystemTrust(ssl_ctx_st* context);

// Threads: one at a time. The socket must outlive the session.
class CClientTls {
 public:
  explicit CClientTls(CClientSocket& socket);
  ~CClientTls();
  CClientTls(const CClientTls&) = delete;
  CClientTls& operator=(const CClientTls&) = delete;

  // Shakes hands with the server that is called `host` and checks its certificate. Waits at most this long in all.
  bool Handshake(const std::string& host, std::uint16_t port, int timeout_ms, HttpClient::Error& error);

  IoResult Read(char* data, std::size_t size);
  // The first record joins the end of `first` with the start of `second`, so that a small request is one packet.
  IoResult Write(std::string_view first, std::string_view second);
  // True while an answer of the protocol itself waits to be written.
  bool WantsToWrite() const { return wants_to_write_; }
  // Tells the peer that nothing more will come, without waiting for it.
  void SayGoodbye();

 private:
  friend class CTlsContext;
  friend struct TlsTransport;

  bool Prepare(const std::string& host, HttpClient::Error& error);
  bool ReportHandshakeFailure(HttpClient::Error& error) const;
  IoResult Interpret(int result);

  CClientSocket& socket_;
  std::shared_ptr<CTlsContext> context_;
  ssl_st* ssl_ = nullptr;
  std::string session_key_;
  int write_error_ = 0;  // of the socket; reading what the peer sent before it went is still possible
  int read_error_ = 0;
  bool wants_to_write_ = false;
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_TLS_H
