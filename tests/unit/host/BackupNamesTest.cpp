#include "BackupNames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tansy::Host {
namespace {

PackedStoredName Body(std::uint32_t segment, std::uint32_t key, std::uint64_t nonce) {
  return PackName(NameOf(BodyId{segment, key, nonce}), 1);
}

TEST(BackupNamesTest, NamesComeOutAsTheyWentIn) {
  const StoredName file{"fs01", "abcd", "0123456789abcdef0123456789abcdef"};
  EXPECT_EQ(UnpackName(PackName(file, 9)), file);
  const StoredName body = NameOf(BodyId{1, 48, 77});
  EXPECT_EQ(UnpackName(PackName(body, 9)), body);
}

TEST(BackupNamesTest, EachNameIsTakenOnceWithTheLargestSize) {
  const StoredName file{"fs01", "abcd", "0123456789abcdef0123456789abcdef"};
  const BackupNames sorted = SortNames({PackName(file, 3), PackName(file, 7), PackName(file, 5)});
  ASSERT_EQ(sorted.files.size(), 1U);
  EXPECT_EQ(sorted.files.front().size, 7U);
}

TEST(BackupNamesTest, BodiesOfASegmentComeInTheOrderOfTheirKeys) {
  const BackupNames sorted = SortNames({Body(2, 480, 5), Body(1, 48, 4), Body(2, 48, 5)});
  EXPECT_TRUE(sorted.files.empty());
  ASSERT_EQ(sorted.segments.size(), 2U);
  EXPECT_EQ(sorted.segments[1].segment, 2U);
  EXPECT_EQ(sorted.segments[1].nonce, 5U);
  ASSERT_EQ(sorted.segments[1].names.size(), 2U);
  EXPECT_EQ(sorted.segments[1].names[0].text, Body(2, 48, 5).text);
}

// Bodies that were moved here from another folder keep the number of a segment of there.
TEST(BackupNamesTest, ANumberIsThatOfOneSegment) {
  const BackupNames sorted = SortNames({Body(1, 48, 9), Body(1, 96, 4), Body(1, 96, 9)});
  ASSERT_EQ(sorted.segments.size(), 1U);
  EXPECT_EQ(sorted.segments[0].nonce, 4U);
  EXPECT_EQ(sorted.segments[0].names.size(), 1U);
  EXPECT_EQ(sorted.files.size(), 2U);
}

}  // namespace
}  // namespace Tansy::Host
