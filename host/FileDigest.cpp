#include "FileDigest.h"

#include <openssl/evp.h>

#include <new>

namespace Tansy::Host {

void CFileDigest::FreeContext::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
}

CFileDigest::CFileDigest() : context_(EVP_MD_CTX_new()) {
  if (context_ == nullptr || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
    throw std::bad_alloc();
  }
}

void CFileDigest::Add(std::string_view bytes) {
  if (EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) != 1) {
    throw std::bad_alloc();
  }
}

Digest CFileDigest::End() {
  Digest digest{};
  if (EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) != 1) {
    throw std::bad_alloc();
  }
  return digest;
}

Digest DigestOf(std::string_view bytes) {
  CFileDigest digest;
  digest.Add(bytes);
  return digest.End();
}

}  // namespace Tansy::Host
