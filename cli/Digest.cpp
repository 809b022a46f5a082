#include "Digest.h"

namespace Tansy::Cli {

CDigest::CDigest() : context_(EVP_MD_CTX_new()) {
  good_ = context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1;
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
