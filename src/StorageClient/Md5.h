#ifndef TANSY_SRC_STORAGE_CLIENT_MD5_H
#define TANSY_SRC_STORAGE_CLIENT_MD5_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace Tansy::CloudStorage {

// Computes the MD5 (RFC 1321) of data that may come in any number of pieces. One object computes one digest and belongs
// to one thread.
class CMd5 {
 public:
  static constexpr std::size_t kDigestBytes = 16;
  using Digest = std::array<std::uint8_t, kDigestBytes>;

  void Update(const void* data, std::size_t size);
  // Pads and returns the digest; the object is used up afterwards.
  Digest Final();

  static Digest Compute(const void* data, std::size_t size);

 private:
  static constexpr std::size_t kBlockBytes = 64;

  std::array<std::uint32_t, 4> state_{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  std::uint64_t total_bytes_ = 0;
  std::size_t pending_bytes_ = 0;  // at the start of pending_, always less than one block
  std::array<std::uint8_t, kBlockBytes> pending_{};
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_MD5_H
