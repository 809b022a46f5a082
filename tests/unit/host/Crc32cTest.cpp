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

}  // namespace
}  // namespace Tansy::Host
