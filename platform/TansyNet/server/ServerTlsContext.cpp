#include "TansyNet/server/ServerTlsContext.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <array>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "TansyNet/server/TicketKeys.h"

namespace TansyNet {
namespace details {
namespace {

struct CertificatePair {
  std::string certificate;
  std::string key;
};

bool FileExists(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_regular_file(reinterpret_cast<const char8_t*>(path.c_str()), ignored);
}

// When both names are the same path, they stand for a pair beside each other or, without such a pair, for a file that
// holds both.
CertificatePair FindPair(const HttpsServer& tls) {
  if (tls.certificate_path != tls.private_key_path) {
    return {tls.certificate_path, tls.private_key_path};
  }
  const std::string certificate = tls.certificate_path + ".crt";
  const std::string key = tls.certificate_path + ".key";
  if (FileExists(tls.certificate_path) && !FileExists(certificate) && !FileExists(key)) {
    return {tls.certificate_path, tls.certificate_path};
  }
  return {certificate, key};
}

std::string OpenSslReason() {
  const unsigned long code = ERR_peek_error();
  ERR_clear_error();
  const char* const reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  return reason == nullptr ? "unknown reason" : reason;
}

// A key with a pass phrase must fail. OpenSSL must not ask for the phrase on a terminal that nobody watches.
int NoPassPhrase(char* /*buffer*/, int /*size*/, int /*for_writing*/, void* /*data*/) {
  return -1;
}

void SetRules(SSL_CTX* context) {
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_cipher_list(context, "ECDHE+AESGCM:ECDHE+CHACHA20");
  SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE |
                                   SSL_OP_PRIORITIZE_CHACHA);
  // With partial writes, the rest of an answer may come from another buffer. Released buffers keep idle connections
  // small.
  SSL_CTX_set_mode(context,
                   SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
  // With read-ahead, a record and its five-byte header need one system call instead of two.
  SSL_CTX_set_read_ahead(context, 1);
  constexpr std::string_view kSessionName = "TansyNet";
  SSL_CTX_set_session_id_context(context, reinterpret_cast<const unsigned char*>(kSessionName.data()),
                                 static_cast<unsigned>(kSessionName.size()));
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_SERVER);
}

bool LoadPair(SSL_CTX* context, const CertificatePair& pair, std::string& error) {
  for (const std::string& path : {pair.certificate, pair.key}) {
    if (!FileExists(path)) {
      error = "certificate: no such file: " + path;
      return false;
    }
  }
  SSL_CTX_set_default_passwd_cb(context, NoPassPhrase);
  if (SSL_CTX_use_certificate_chain_file(context, pair.certificate.c_str()) != 1) {
    error = "certificate: cannot read " + pair.certificate + ": " + OpenSslReason();
    return false;
  }
  // Reading the key also compares it with the certificate.
  if (SSL_CTX_use_PrivateKey_file(context, pair.key.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(context) != 1) {
    error = "certificate: cannot use the key " + pair.key + " with " + pair.certificate + ": " + OpenSslReason();
    return false;
  }
  return true;
}

bool SetClientChecks(SSL_CTX* context, const HttpsServer& tls, std::string& error) {
  if (!tls.request_client_certificate && !tls.require_client_certificate) {
    return true;
  }
  if (SSL_CTX_load_verify_file(context, tls.trust_path.c_str()) != 1) {
    error = "certificate: cannot read the authorities of clients from " + tls.trust_path + ": " + OpenSslReason();
    return false;
  }
  SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(tls.trust_path.c_str()));
  const int required = tls.require_client_certificate ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0;
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | required, nullptr);
  return true;
}

}  // namespace
}  // namespace details

TlsContextPtr LoadTlsContext(const HttpsServer& tls, std::string& error) {
  ERR_clear_error();
  TlsContextPtr context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  if (context == nullptr) {
    error = "certificate: no TLS available: " + details::OpenSslReason();
    return nullptr;
  }
  details::SetRules(context.get());
  if (!CTicketKeys::Use(context.get())) {
    error = "certificate: no session tickets: " + details::OpenSslReason();
    return nullptr;
  }
  if (!details::LoadPair(context.get(), details::FindPair(tls), error) ||
      !details::SetClientChecks(context.get(), tls, error)) {
    return nullptr;
  }
  return context;
}

}  // namespace TansyNet
