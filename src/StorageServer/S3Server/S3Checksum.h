// Cyclic redundancy checks, computed by tables that are made when the program is built.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CHECKSUM_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CHECKSUM_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Tansy::CloudStorage::S3 {

// `Polynomial` is the reflected form. The register begins and ends inverted. Each step takes eight bytes by eight
// tables, because a step for each byte would take longer than the rest of an upload.
template <typename Word, Word Polynomial>
class CChecksum {
 public:
  void Add(std::string_view bytes) {
    const auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t left = bytes.size();
    for (; left >= kSlices; at += kSlices, left -= kSlices) {
      Word next = 0;
      for (std::size_t i = 0; i < kSlices; ++i) {
        const auto of_register = i < sizeof(Word) ? static_cast<unsigned char>(register_ >> (8 * i)) : 0;
        next ^= kTables[kSlices - 1 - i][at[i] ^ of_register];
      }
      register_ = next;
    }
    for (; left > 0; ++at, --left) {
      register_ = (register_ >> 8) ^ kTables[0][(register_ ^ *at) & 0xff];
    }
  }

  Word Value() const { return static_cast<Word>(~register_); }

  // Gives the check of one text behind another from the checks of both; the second one has `length` bytes.
  static constexpr Word Join(Word first, Word second, std::uint64_t length) {
    return Multiply(PowerOf256(length), first) ^ second;
  }

 private:
  // Polynomials have their highest bit first: this is 1.
  static constexpr Word kOne = static_cast<Word>(Word{1} << (8 * sizeof(Word) - 1));

  static constexpr Word Multiply(Word left, Word right) {
    Word product = 0;
    for (Word bit = kOne; bit != 0; bit >>= 1) {
      product ^= (left & bit) != 0 ? right : 0;
      right = (right >> 1) ^ ((right & 1) != 0 ? Polynomial : 0);
    }
    return product;
  }

  // Gives the polynomial that a byte stands for, x to the 8th, to this power.
  static constexpr Word PowerOf256(std::uint64_t exponent) {
    Word power = kOne;
    for (Word square = kOne >> 8; exponent > 0; exponent >>= 1, square = Multiply(square, square)) {
      power = (exponent & 1) != 0 ? Multiply(power, square) : power;
    }
    return power;
  }

  static constexpr std::size_t kSlices = 8;
  using Tables = std::array<std::array<Word, 256>, kSlices>;

  static constexpr Tables MakeTables() {
    Tables tables{};
    for (unsigned byte = 0; byte < 256; ++byte) {
      Word value = byte;
      for (int bit = 0; bit < 8; ++bit) {
        value = (value >> 1) ^ ((value & 1) != 0 ? Polynomial : 0);
      }
      tables[0][byte] = value;
    }
    for (unsigned byte = 0; byte < 256; ++byte) {
      for (std::size_t slice = 1; slice < kSlices; ++slice) {
        const Word before = tables[slice - 1][byte];
        tables[slice][byte] = (before >> 8) ^ tables[0][before & 0xff];
      }
    }
    return tables;
  }

  static constexpr Tables kTables = MakeTables();

  Word register_ = static_cast<Word>(~Word{0});
};

using CCrc32 = CChecksum<std::uint32_t, 0xEDB88320U>;
using CCrc32c = CChecksum<std::uint32_t, 0x82F63B78U>;
using CCrc64Nvme = CChecksum<std::uint64_t, 0x9A6C9329AC4BC9B5ULL>;

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_CHECKSUM_H
