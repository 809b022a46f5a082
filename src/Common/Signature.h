// The signature of requests: clients make it and servers check it. Threads: any.
#ifndef TANSY_SRC_COMMON_SIGNATURE_H
#define TANSY_SRC_COMMON_SIGNATURE_H

#include <string>
#include <string_view>

namespace Tansy::CloudStorage {

// Gives the scheme word of the Authorization header and of tokens.
const std::string& AuthPrefix();

// Gives the Base64 text of the HMAC-SHA1 (RFC 2104) of `text` under `key`; it is empty when the library refuses.
std::string SignHmacSha1(std::string_view text, std::string_view key);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_COMMON_SIGNATURE_H
