// What clients sign requests with and servers check them by. Any thread.
#ifndef TANSY_SRC_COMMON_SIGNATURE_H
#define TANSY_SRC_COMMON_SIGNATURE_H

#include <string>
#include <string_view>

namespace Tansy::CloudStorage {

// Scheme word of the Authorization header and of tokens.
const std::string& AuthPrefix();

// Base64 of the HMAC-SHA1 (RFC 2104) of `text` under `key`; empty when the library refuses.
std::string SignHmacSha1(std::string_view text, std::string_view key);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_COMMON_SIGNATURE_H
