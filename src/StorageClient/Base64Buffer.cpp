#include "StorageClient/Base64Buffer.h"

#include <algorithm>
#include <string>

#include "TansyBase/Encrypt.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::int32_t kOutputTooSmall = -2;

}  // namespace
}  // namespace details

std::int32_t Base64EncodeBuffer(const void* input, std::uint32_t input_length, char* output, std::uint32_t output_size,
                                std::uint32_t& output_length) {
  // This is computed in 64 bits: from 3 GiB on, the length of the text does not fit into 32 bits.
  const std::uint64_t needed = (std::uint64_t{input_length} + 2) / 3 * 4;
  output_length = static_cast<std::uint32_t>(needed);
  if (needed > output_size) {
    return details::kOutputTooSmall;
  }
  const std::string text = TansyBase::Encrypt::Base64Encode(input, input_length);
  std::copy(text.begin(), text.end(), output);
  return 0;
}

}  // namespace Tansy::CloudStorage
