#include "Crc32c.h"

#include <gtest/gtest.h>

#include <string>

namespace Tansy::Host {
namespace {

std::uint32_t CrcOf(const std::string& bytes, std::uint32_t before = 0) {
  return Crc32c(bytes.data(), bytes.size(), before);
}

// The examples of RFC 3720, appendix B.4, and the customary check value.
TEST(Crc32cTest, IsTheChecksumOfTheStandard) {
  EXPECT_EQ(CrcOf("123456789"), 0xE3069283U);
  EXPECT_EQ(CrcOf(std::string(32, '\0')), 0x8A9136AAU);
  EXPECT_EQ(CrcOf(std::string(32, '\xFF')), 0x62A8AB43U);
  std::string rising;
  for (char byte = 0; byte < 32; ++byte) {
    rising += byte;
  }
  EXPECT_EQ(CrcOf(rising), 0x46DD794EU);
}

TEST(Crc32cTest, PiecesGiveWhatTheWholeGives) {
  std::string bytes;
  for (int i = 0; i < 100; ++i) {
    bytes += static_cast<char>(i * 37);
  }
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    EXPECT_EQ(CrcOf(bytes.substr(cut), CrcOf(bytes.substr(0, cut))), CrcOf(bytes)) << cut;
  }
  EXPECT_EQ(CrcOf(""), 0U);
}

// What one processor wrote with its instruction, another one checks with the tables.
TEST(Crc32cTest, IsTheSameOnEveryProcessor) {
  std::string bytes;
  for (int i = 0; i < 1000; ++i) {
    bytes += static_cast<char>(i * 41 + i / 7);
  }
  for (std::size_t begin = 0; begin < 9; ++begin) {
    for (std::size_t size = 0; size < 100; ++size) {
      for (const std::uint32_t before : {0U, 0x12345678U}) {
        EXPECT_EQ(Crc32c(bytes.data() + begin, size, before),
                  details::Crc32cByTables(bytes.data() + begin, size, before))
            << begin << " " << size;
      }
    }
  }
  EXPECT_EQ(details::Crc32cByTables("123456789", 9, 0), 0xE3069283U);
}

}  // namespace
}  // namespace Tansy::Host
