#include "Crc32c.h"

#include <array>
#include <bit>
#include <cstring>

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint32_t kPolynomial = 0x82F63B78;  // bits reversed: the lowest bit stands for the highest power
constexpr std::size_t kAtOnce = 8;                 // bytes

using Table = std::array<std::uint32_t, 256>;

// Table k gives what a byte adds to the result when k more bytes follow it, so that eight bytes take one step together.
constexpr std::array<Table, kAtOnce> MakeTables() {
  std::array<Table, kAtOnce> tables{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t value = byte;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value >> 1) ^ ((value & 1) != 0 ? kPolynomial : 0);
    }
    tables[0][byte] = value;
  }
  for (std::size_t k = 1; k < kAtOnce; ++k) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const std::uint32_t shorter = tables[k - 1][byte];
      tables[k][byte] = (shorter >> 8) ^ tables[0][shorter & 0xFF];
    }
  }
  return tables;
}

constexpr std::array<Table, kAtOnce> kTables = MakeTables();
static_assert(std::endian::native == std::endian::little, "eight bytes are read as one little-endian number");

// Some processors have an instruction for this checksum, which is four times as fast as the tables.
#if defined(__GNUC__) && defined(__x86_64__)

bool HasInstruction() {
  static const bool has = __builtin_cpu_supports("sse4.2") != 0;
  return has;
}

__attribute__((target("sse4.2"))) std::uint32_t ByInstruction(const char* data, std::size_t size,
                                                              std::uint32_t before) {
  std::uint64_t crc = ~before;
  for (; size >= kAtOnce; size -= kAtOnce, data += kAtOnce) {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, data, sizeof bytes);
    crc = __builtin_ia32_crc32di(crc, bytes);
  }
  for (; size > 0; --size, ++data) {
    crc = __builtin_ia32_crc32qi(static_cast<std::uint32_t>(crc), static_cast<unsigned char>(*data));
  }
  return ~static_cast<std::uint32_t>(crc);
}

#else

bool HasInstruction() {
  return false;
}

std::uint32_t ByInstruction(const char* data, std::size_t size, std::uint32_t before) {
  return Crc32cByTables(data, size, before);
}

#endif

}  // namespace

std::uint32_t Crc32cByTables(const char* data, std::size_t size, std::uint32_t before) {
  const auto& tables = kTables;
  std::uint32_t crc = ~before;
  for (; size >= kAtOnce; size -= kAtOnce, data += kAtOnce) {
    std::uint32_t low = 0;
    std::uint32_t high = 0;
    std::memcpy(&low, data, sizeof low);
    std::memcpy(&high, data + sizeof low, sizeof high);
    low ^= crc;
    crc = tables[7][low & 0xFF] ^ tables[6][(low >> 8) & 0xFF] ^ tables[5][(low >> 16) & 0xFF] ^ tables[4][low >> 24] ^
          tables[3][high & 0xFF] ^ tables[2][(high >> 8) & 0xFF] ^ tables[1][(high >> 16) & 0xFF] ^
          tables[0][high >> 24];
  }
  for (; size > 0; --size, ++data) {
    crc = (crc >> 8) ^ tables[0][(crc ^ static_cast<unsigned char>(*data)) & 0xFF];
  }
  return ~crc;
}

}  // namespace details

std::uint32_t Crc32c(const char* data, std::size_t size, std::uint32_t before) {
  return details::HasInstruction() ? details::ByInstruction(data, size, before)
                                   : details::Crc32cByTables(data, size, before);
}

}  // namespace Tansy::Host
