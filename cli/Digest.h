#ifndef TANSY_CLI_DIGEST_H
#define TANSY_CLI_DIGEST_H

#include <openssl/evp.h>

#include <cstddef>
#include <memory>
#include <string>

namespace Tansy::Cli {

// SHA-256 of bytes that come in pieces, to tell whether two contents are the same. One thread.
class CDigest {
 public:
  CDigest();
  void Add(const char* data, std::size_t size);
  // The 32 bytes; afterwards nothing more can be added. Empty when the library has failed.
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
