#include "Digest.h"

namespace Tansy::Cli {

CDigest::CDigest(EKind kind) : context_(EVP_MD_CTX_new()) {
  const EVP_MD* const algorithm = kind == EKind::kMd5 ? EVP_md5() : EVP_sha256();
  good_ = context_ != nullptr && EVP_DigestInit_ex(context_.get(), algorithm, nullptr) == 1;
}

void CDigest::Add(const char* data, std::size_t size) {
  good_ = good_ && EVP_DigestUpdate(context_.get(), data, size) == 1;
}

std::string CDigest::Finish() {
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  good_ = good_ && EVP_DigestFinal_ex(context_.get(), bytes, &size) == 1;
  return good_ ? std::string(bytes, bytes + size) : std::string();
}

}  // namespace Tansy::Cli
