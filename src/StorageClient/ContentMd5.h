#ifndef TANSY_SRC_STORAGE_CLIENT_CONTENT_MD5_H
#define TANSY_SRC_STORAGE_CLIENT_CONTENT_MD5_H

#include <cstdint>
#include <string>

namespace Tansy::CloudStorage {

// The Content-MD5 value of an upload: Base64 of the MD5 digest's 32 lower-case hexadecimal characters (not of its 16
// bytes), 44 characters.
// Fixed: docs/compatibility.md, "Unsigned digest and date".
std::string ComputeContentMd5(const void* data, std::uint32_t length);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_CONTENT_MD5_H
