#include "StorageClient/ContentMd5.h"

#include <cstddef>

#include "StorageClient/Base64Buffer.h"
#include "StorageClient/Md5.h"

namespace Tansy::CloudStorage {

std::string ComputeContentMd5(const void* data, std::uint32_t length) {
  static constexpr char kHexDigits[] = "0123456789abcdef";
  const CMd5::Digest digest = CMd5::Compute(data, length);
  char hex[2 * CMd5::kDigestBytes];
  for (std::size_t i = 0; i < digest.size(); ++i) {
    hex[2 * i] = kHexDigits[digest[i] >> 4];
    hex[2 * i + 1] = kHexDigits[digest[i] & 0x0f];
  }
  char text[512];
  std::uint32_t text_length = 0;
  if (Base64EncodeBuffer(hex, sizeof(hex), text, sizeof(text), text_length) != 0) {
    return {};
  }
  return {text, text_length};
}

}  // namespace Tansy::CloudStorage
