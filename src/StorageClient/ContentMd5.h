#ifndef TANSY_SRC_STORAGE_CLIENT_CONTENT_MD5_H
#define TANSY_SRC_STORAGE_CLIENT_CONTENT_MD5_H

#include <cstdint>
#include <string>

namespace Tansy::CloudStorage {

// Gives the Content-MD5 value of an upload, which has 44 characters. It is the Base64 text of the MD5 digest's 32
// lower-case hexadecimal characters, not of its 16 bytes.
// Fixed: docs/compatibility.md, "Unsigned digest and date".
std::string ComputeContentMd5(const void* data, std::uint32_t length);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_CONTENT_MD5_H
