// This asks for the interface of OpenSSL 1.1.1 without warnings, because the HMAC functions are deprecated since 3.0
// but stay available.
#define OPENSSL_API_COMPAT 0x10101000L

#include "Common/Signature.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cstddef>
#include <limits>
#include <memory>

#include "TansyBase/Encrypt.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

// Each thread has a digest object of its own. Setting up a context looks the algorithm up by name and hashes the key,
// which costs more than the signature of a request itself. A server has one key, so both are done once per thread and
// kept.
class HmacSha1 {
 public:
  // Writes the digest and its length. Returns false when the library refuses.
  bool Sign(std::string_view text, std::string_view key, unsigned char* digest, unsigned int& length) {
    if (!Restart(key)) {
      return false;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    return HMAC_Update(context_.get(), bytes, text.size()) == 1 && HMAC_Final(context_.get(), digest, &length) == 1;
  }

 private:
  struct Free {
    void operator()(HMAC_CTX* context) const { HMAC_CTX_free(context); }
  };

  bool Restart(std::string_view key) {
    if (has_key_ && key == key_) {
      return HMAC_Init_ex(context_.get(), nullptr, 0, nullptr, nullptr) == 1;
    }
    has_key_ = false;
    if (key.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
      return false;
    }
    if (!context_) {
      context_.reset(HMAC_CTX_new());
    }
    key_ = key;
    // c_str() is never null, and that matters: a null key would mean "use the previous key".
    has_key_ =
        context_ && HMAC_Init_ex(context_.get(), key_.c_str(), static_cast<int>(key_.size()), EVP_sha1(), nullptr) == 1;
    return has_key_;
  }

  std::unique_ptr<HMAC_CTX, Free> context_;
  std::string key_;
  bool has_key_ = false;
};

}  // namespace
}  // namespace details

const std::string& AuthPrefix() {
  // The text is not destroyed at the end of the process, because requests may still be under way then.
  static const std::string& prefix = *new std::string("quorvane");
  return prefix;
}

std::string SignHmacSha1(std::string_view text, std::string_view key) {
  thread_local details::HmacSha1 hmac;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!hmac.Sign(text, key, digest, length)) {
    return {};
  }
  return TansyBase::Encrypt::Base64Encode(digest, length);
}

}  // namespace Tansy::CloudStorage
