#ifndef TANSY_CLI_DIGEST_H
#define TANSY_CLI_DIGEST_H

#include <openssl/evp.h>

#include <cstddef>
#include <memory>
#include <string>

namespace Tansy::Cli {

// Computes a digest of bytes that come in pieces, to find out whether two contents are the same. Threads: one.
class CDigest {
 public:
  enum class EKind { kSha256, kMd5 };

  explicit CDigest(EKind kind = EKind::kSha256);
  void Add(const char* data, std::size_t size);
  // Gives its bytes; afterwards nothing more can be added. The text is empty when the library has failed.
  std::string Finish();

 private:
  struct FreeContext {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };

  std::unique_ptr<EVP_MD_CTX, FreeContext> context_;
  bool good_ = false;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_DIGEST_H
