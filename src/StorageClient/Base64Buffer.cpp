#include "StorageClient/Base64Buffer.h"

#include <cstddef>

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::int32_t kOutputTooSmall = -2;
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Four characters of the 24 bits; `bytes` of the three were there, the rest is padding.
void EncodeGroup(std::uint32_t bits, std::size_t bytes, char* output) {
  output[0] = kAlphabet[bits >> 18 & 0x3f];
  output[1] = kAlphabet[bits >> 12 & 0x3f];
  output[2] = bytes > 1 ? kAlphabet[bits >> 6 & 0x3f] : '=';
  output[3] = bytes > 2 ? kAlphabet[bits & 0x3f] : '=';
}

}  // namespace
}  // namespace details

std::int32_t Base64EncodeBuffer(const void* input, std::uint32_t input_length, char* output, std::uint32_t output_size,
                                std::uint32_t& output_length) {
  // Computed in 64 bits: the text of 3 GiB and more has a length that 32 bits cannot hold and never fits.
  const std::uint64_t needed = (std::uint64_t{input_length} + 2) / 3 * 4;
  output_length = static_cast<std::uint32_t>(needed);
  if (needed > output_size) {
    return details::kOutputTooSmall;
  }
  const auto* bytes = static_cast<const std::uint8_t*>(input);
  while (input_length >= 3) {
    details::EncodeGroup(std::uint32_t{bytes[0]} << 16 | std::uint32_t{bytes[1]} << 8 | bytes[2], 3, output);
    bytes += 3;
    output += 4;
    input_length -= 3;
  }
  if (input_length == 2) {
    details::EncodeGroup(std::uint32_t{bytes[0]} << 16 | std::uint32_t{bytes[1]} << 8, 2, output);
  } else if (input_length == 1) {
    details::EncodeGroup(std::uint32_t{bytes[0]} << 16, 1, output);
  }
  return 0;
}

}  // namespace Tansy::CloudStorage
