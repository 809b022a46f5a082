#include "ByteCount.h"

#include <gtest/gtest.h>

#include "Failure.h"

namespace Tansy::Cli {
namespace {

TEST(ByteCountTest, ReadsNumbersWithUnits) {
  EXPECT_EQ(ParseByteCount("--x", "1"), 1u);
  EXPECT_EQ(ParseByteCount("--x", "64K"), 65536u);
  EXPECT_EQ(ParseByteCount("--x", "10M"), 10485760u);
  EXPECT_EQ(ParseByteCount("--x", "2GiB"), std::uint64_t{2} << 30);
}

TEST(ByteCountTest, RefusesTheRest) {
  for (const char* text : {"", "0", "-1", "1.5M", "K", "5T", "5 K", "99999999999999999999", "9999999999999G"}) {
    EXPECT_THROW(ParseByteCount("--x", text), CFailure) << text;
  }
}

}  // namespace
}  // namespace Tansy::Cli
