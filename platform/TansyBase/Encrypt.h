#ifndef TANSY_BASE_ENCRYPT_H
#define TANSY_BASE_ENCRYPT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace TansyBase {

// Base64 with the standard alphabet and "=" padding (RFC 4648 section 4), without line breaks. Threads: any.
class Encrypt {
 public:
  static std::string Base64Encode(const void* data, std::size_t size);
  static std::string Base64Encode(std::string_view data);
  // Returns false, with `out` empty, when `text` is no Base64 text (wrong length, foreign character, bad padding).
  static bool Base64Decode(std::string_view text, std::string& out);
};

}  // namespace TansyBase

#endif  // TANSY_BASE_ENCRYPT_H
