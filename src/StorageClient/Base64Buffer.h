#ifndef TANSY_SRC_STORAGE_CLIENT_BASE64_BUFFER_H
#define TANSY_SRC_STORAGE_CLIENT_BASE64_BUFFER_H

#include <cstdint>

namespace Tansy::CloudStorage {

// Writes the Base64 text (standard alphabet, "=" padding) of `input_length` bytes into a buffer of the caller.
// `output_length` becomes the length of the text, which has no terminating NUL. Returns 0, or -2 without writing when
// `output_size` is smaller.
std::int32_t Base64EncodeBuffer(const void* input, std::uint32_t input_length, char* output, std::uint32_t output_size,
                                std::uint32_t& output_length);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_BASE64_BUFFER_H
