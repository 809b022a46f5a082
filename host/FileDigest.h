#ifndef TANSY_HOST_FILE_DIGEST_H
#define TANSY_HOST_FILE_DIGEST_H

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

struct evp_md_ctx_st;

namespace Tansy::Host {

using Digest = std::array<unsigned char, 32>;

// SHA-256 of bytes that come one piece after another. One thread uses it. Throws std::bad_alloc.
class CFileDigest {
 public:
  CFileDigest();

  void Add(std::string_view bytes);
  // Nothing may be added afterwards.
  Digest End();

 private:
  struct FreeContext {
    void operator()(evp_md_ctx_st* context) const;
  };

  std::unique_ptr<evp_md_ctx_st, FreeContext> context_;
};

Digest DigestOf(std::string_view bytes);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FILE_DIGEST_H
