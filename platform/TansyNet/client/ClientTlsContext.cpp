#include "TansyNet/client/ClientTlsContext.h"

#include <openssl/err.h>

#include <atomic>
#include <utility>

#include "TansyNet/client/SystemTrust.h"

namespace TansyNet::details {

namespace {

// A session takes a few KiB. A process that talks to more servers than this makes full handshakes with some of them.
constexpr std::size_t kMaxSessions = 256;
constexpr std::size_t kReadAheadBytes = std::size_t{64} * 1024;

struct SharedContext {
  std::mutex mutex;  // guards the members below
  TlsTrust trust;
  std::shared_ptr<CClientTlsContext> context;  // made at the first use
  std::atomic<std::uint64_t> generation{0};
};

SharedContext& Shared() {
  static auto* const shared = new SharedContext;  // used by threads that may outlive static objects
  return *shared;
}

int LastReason() {
  const int reason = ERR_GET_REASON(ERR_peek_last_error());
  ERR_clear_error();
  return reason != 0 ? reason : SSL_R_LIBRARY_BUG;
}

}  // namespace

void SetClientTrust(const TlsTrust& trust) {
  SharedContext& shared = Shared();
  const std::lock_guard<std::mutex> lock(shared.mutex);
  shared.trust = trust;
  shared.context.reset();
  ++shared.generation;
}

std::uint64_t ClientTrustGeneration() {
  return Shared().generation.load();
}

std::shared_ptr<CClientTlsContext> CClientTlsContext::Current() {
  SharedContext& shared = Shared();
  const std::lock_guard<std::mutex> lock(shared.mutex);
  if (shared.context == nullptr) {
    shared.context = std::make_shared<CClientTlsContext>(shared.trust);
  }
  return shared.context;
}

CClientTlsContext::CClientTlsContext(const TlsTrust& trust)
    : context_(SSL_CTX_new(TLS_client_method())), verifies_(!trust.accept_any) {
  if (context_ == nullptr) {
    failure_ = LastReason();
    return;
  }
  Configure();
  if (verifies_ && !LoadTrust(trust)) {
    failure_ = LastReason();
    context_.reset();
  }
}

CClientTlsContext::~CClientTlsContext() = default;

void CClientTlsContext::Configure() {
  SSL_CTX* const context = context_.get();
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  // A write that could not finish is tried again from another place in memory if its bytes have moved.
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_read_ahead(context, 1);
  SSL_CTX_set_default_read_buffer_len(context, kReadAheadBytes);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
  SSL_CTX_sess_set_new_cb(context, &CClientTlsContext::OnNewSession);
  SSL_CTX_set_verify(context, verifies_ ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
}

bool CClientTlsContext::LoadTrust(const TlsTrust& trust) {
  ERR_clear_error();
  if (trust.trust_file.empty()) {
    return AddSystemTrust(context_.get());
  }
  // A trust file may name a server's own certificate, which then counts as trusted whoever signed it.
  X509_VERIFY_PARAM_set_flags(SSL_CTX_get0_param(context_.get()), X509_V_FLAG_PARTIAL_CHAIN);
  return SSL_CTX_load_verify_file(context_.get(), trust.trust_file.c_str()) == 1;
}

int CClientTlsContext::OnNewSession(SSL* ssl, SSL_SESSION* session) {
  const auto* const place = static_cast<SessionPlace*>(SSL_get_app_data(ssl));
  if (place == nullptr) {
    return 0;
  }
  place->context->KeepSession(place->key, SessionPointer(session));
  return 1;  // 1 tells the library that the reference now belongs to us
}

void CClientTlsContext::ResumeAndKeep(SSL* ssl, SessionPlace& place) {
  SSL_set_app_data(ssl, &place);
  place.context->OfferSession(ssl, place.key);
}

void CClientTlsContext::KeepSession(const std::string& key, SessionPointer session) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (sessions_.size() >= kMaxSessions && sessions_.find(key) == sessions_.end()) {
    sessions_.erase(sessions_.begin());
  }
  sessions_[key] = std::move(session);
}

void CClientTlsContext::OfferSession(SSL* ssl, const std::string& key) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = sessions_.find(key);
  if (found != sessions_.end() && SSL_SESSION_is_resumable(found->second.get()) == 1) {
    SSL_set_session(ssl, found->second.get());
  }
}

}  // namespace TansyNet::details
