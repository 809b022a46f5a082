// What all secure connections of one trust setting share: the library's context and the sessions that can be resumed.
#ifndef TANSY_NET_CLIENT_CLIENT_TLS_CONTEXT_H
#define TANSY_NET_CLIENT_CLIENT_TLS_CONTEXT_H

#include <openssl/ssl.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "TansyNet/client/TlsTrust.h"

namespace TansyNet::details {

// Replaces the context for connections opened from now on.
void SetClientTrust(const TlsTrust& trust);
// Counts the replacements, so that connections opened under earlier settings can be recognised.
std::uint64_t ClientTrustGeneration();

class CClientTlsContext;

// The place where the session of a connection is kept for the next connection with the same server.
struct SessionPlace {
  CClientTlsContext* context = nullptr;
  std::string key;  // names the server
};

// Threads: any.
class CClientTlsContext {
 public:
  explicit CClientTlsContext(const TlsTrust& trust);
  ~CClientTlsContext();
  CClientTlsContext(const CClientTlsContext&) = delete;
  CClientTlsContext& operator=(const CClientTlsContext&) = delete;

  // Gives the context of the current trust setting; it is never null.
  static std::shared_ptr<CClientTlsContext> Current();

  // Returns null when the trust file could not be read; Failure() then gives the TLS library's reason.
  SSL_CTX* Get() const { return context_.get(); }
  int Failure() const { return failure_; }
  bool VerifiesServers() const { return verifies_; }

  // Makes `ssl` resume the last session kept at this place, if there is one, and keep its own session there. The place
  // must outlive `ssl`.
  static void ResumeAndKeep(SSL* ssl, SessionPlace& place);

 private:
  struct ContextDeleter {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };
  struct SessionDeleter {
    void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
  };
  using SessionPointer = std::unique_ptr<SSL_SESSION, SessionDeleter>;

  static int OnNewSession(SSL* ssl, SSL_SESSION* session);
  void Configure();
  bool LoadTrust(const TlsTrust& trust);
  void OfferSession(SSL* ssl, const std::string& key);
  void KeepSession(const std::string& key, SessionPointer session);

  std::unique_ptr<SSL_CTX, ContextDeleter> context_;
  int failure_ = 0;
  bool verifies_ = true;

  std::mutex mutex_;  // guards the members below
  std::map<std::string, SessionPointer> sessions_;
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_CLIENT_TLS_CONTEXT_H
