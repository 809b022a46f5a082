#ifndef TANSY_HOST_CRC32C_H
#define TANSY_HOST_CRC32C_H

#include <cstddef>
#include <cstdint>

namespace Tansy::Host {

// CRC-32C, the checksum with the Castagnoli polynomial that RFC 3720 (iSCSI) defines. To go on where an earlier piece
// ended, give the result for that piece as `before`.
std::uint32_t Crc32c(const char* data, std::size_t size, std::uint32_t before = 0);

namespace details {

// The same without the processor's own instruction for it, which not every processor has.
std::uint32_t Crc32cByTables(const char* data, std::size_t size, std::uint32_t before);

}  // namespace details

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CRC32C_H
