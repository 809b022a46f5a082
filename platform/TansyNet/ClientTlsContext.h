// What all secure connections of one trust setting share: the library's context and the sessions to resume.
#ifndef TANSY_NET_CLIENT_TLS_CONTEXT_H
#define TANSY_NET_CLIENT_TLS_CONTEXT_H

#include <openssl/ssl.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "TansyNet/HttpClient.h"

namespace TansyNet::details {

// Any thread.
class CTlsContext {
 public:
  explicit CTlsContext(const TlsTrust& trust);
  ~CTlsContext();
  CTlsContext(const CTlsContext&) = delete;
  CTlsContext& operator=(const CTlsContext&) = delete;

  // The context of the current trust setting, never null.
  static std::shared_ptr<CTlsContext> Current();

  // Null when the trust file could not be read; Failure() is then the TLS library's reason.
  SSL_CTX* Get() const { return context_.get(); }
  int Failure() const { return failure_; }
  bool VerifiesServers() const { return verifies_; }

  // Makes `ssl` resume the last session with the server of this key, if there is one.
  void OfferSession(SSL* ssl, const std::string& key);

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
  void KeepSession(const std::string& key, SessionPointer session);

  std::unique_ptr<SSL_CTX, ContextDeleter> context_;
  int failure_ = 0;
  bool verifies_ = true;

  std::mutex mutex_;  // guards the members below
  std::map<std::string, SessionPointer> sessions_;
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_TLS_CONTEXT_H
