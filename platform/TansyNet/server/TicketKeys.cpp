#include "TansyNet/server/TicketKeys.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>

namespace TansyNet {

namespace details {
namespace {

constexpr int kRandomFailed = -1;
constexpr int kNoTicket = 0;  // the handshake is a full one
constexpr int kUse = 1;
constexpr int kUseAndRenew = 2;

bool SetDigestKey(EVP_MAC_CTX* digest, CTicketKeys::Key& key) {
  std::string name = "SHA256";
  const std::array<OSSL_PARAM, 3> parameters = {
      OSSL_PARAM_construct_octet_string(OSSL_MAC_PARAM_KEY, key.digest.data(), key.digest.size()),
      OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, name.data(), 0), OSSL_PARAM_construct_end()};
  return EVP_MAC_CTX_set_params(digest, parameters.data()) == 1;
}

int Seal(CTicketKeys& keys, unsigned char* name, unsigned char* start, EVP_CIPHER_CTX* cipher, EVP_MAC_CTX* digest) {
  auto key = keys.Current(CTicketKeys::Clock::now());
  const EVP_CIPHER* const method = EVP_aes_256_cbc();
  if (!key || RAND_bytes(start, EVP_CIPHER_get_iv_length(method)) != 1) {
    return kRandomFailed;
  }
  std::copy(key->name.begin(), key->name.end(), name);
  const bool ready = EVP_EncryptInit_ex(cipher, method, nullptr, key->cipher.data(), start) == 1;
  return ready && SetDigestKey(digest, *key) ? kUse : kRandomFailed;
}

int Open(CTicketKeys& keys, const unsigned char* name, const unsigned char* start, EVP_CIPHER_CTX* cipher,
         EVP_MAC_CTX* digest) {
  auto found = keys.Find(name, CTicketKeys::Clock::now());
  if (!found || EVP_DecryptInit_ex(cipher, EVP_aes_256_cbc(), nullptr, found->key.cipher.data(), start) != 1 ||
      !SetDigestKey(digest, found->key)) {
    return kNoTicket;
  }
  return found->is_current ? kUse : kUseAndRenew;
}

void DeleteKeys(void* /*context*/, void* keys, CRYPTO_EX_DATA* /*data*/, int /*place*/, long /*arguments*/,
                void* /*pointer*/) {
  delete static_cast<CTicketKeys*>(keys);
}

// The place where a context keeps its keys. When a certificate is replaced, open connections keep context and keys
// alive.
int Place() {
  static const int place = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, DeleteKeys);
  return place;
}

// OpenSSL calls this for each ticket that it makes or reads.
int HandleTicket(SSL* session, unsigned char* name, unsigned char* start, EVP_CIPHER_CTX* cipher, EVP_MAC_CTX* digest,
                 int makes) {
  auto* const keys = static_cast<CTicketKeys*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(session), Place()));
  return makes == 1 ? Seal(*keys, name, start, cipher, digest) : Open(*keys, name, start, cipher, digest);
}

}  // namespace
}  // namespace details

std::optional<CTicketKeys::Key> CTicketKeys::Current(Clock::time_point now) {
  const std::scoped_lock lock(mutex_);
  if ((!current_ || now - made_ >= kLife) && !Renew(now)) {
    return std::nullopt;
  }
  return current_;
}

std::optional<CTicketKeys::Found> CTicketKeys::Find(const unsigned char* name, Clock::time_point now) {
  const std::scoped_lock lock(mutex_);
  const auto is_named = [name](const std::optional<Key>& key) {
    return key && std::equal(key->name.begin(), key->name.end(), name);
  };
  // The previous key was replaced when the current one was made, and counts for one more life from then on.
  if (is_named(current_) && now - made_ < 2 * kLife) {
    return Found{*current_, now - made_ < kLife};
  }
  if (is_named(previous_) && now - made_ < kLife) {
    return Found{*previous_, false};
  }
  return std::nullopt;
}

bool CTicketKeys::Renew(Clock::time_point now) {
  Key fresh{};
  if (RAND_bytes(fresh.name.data(), static_cast<int>(fresh.name.size())) != 1 ||
      RAND_priv_bytes(fresh.cipher.data(), static_cast<int>(fresh.cipher.size())) != 1 ||
      RAND_priv_bytes(fresh.digest.data(), static_cast<int>(fresh.digest.size())) != 1) {
    return false;
  }
  // A key whose second twelve hours are over too is not kept.
  previous_ = current_ && now - made_ < 2 * kLife ? current_ : std::nullopt;
  current_ = fresh;
  made_ = now;
  return true;
}

bool CTicketKeys::Use(SSL_CTX* context) {
  auto keys = std::make_unique<CTicketKeys>();
  if (SSL_CTX_set_ex_data(context, details::Place(), keys.get()) != 1) {
    return false;
  }
  keys.release();  // from here on they belong to the context
  return SSL_CTX_set_tlsext_ticket_key_evp_cb(context, details::HandleTicket) == 1;
}

}  // namespace TansyNet
