#include "TagCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "Failure.h"
#include "fakes/TempFolder.h"

namespace Tansy::Cli {
namespace {

using testing::Contains;
using testing::ElementsAre;

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;

bool Fits(const std::string& bytes, const std::string& tag) {
  CTagCheck check(tag, bytes.size());
  for (std::size_t at = 0; at < bytes.size(); at += 100000) {
    const std::string piece = bytes.substr(at, 100000);
    check.Add(piece.data(), piece.size());
  }
  return check.Fits();
}

TEST(TagCheckTest, ComparesTheDigestOfAnObjectThatWasSentWhole) {
  EXPECT_TRUE(Fits("abc", "900150983cd24fb0d6963f7d28e17f72"));
  EXPECT_TRUE(Fits("", "d41d8cd98f00b204e9800998ecf8427e"));
  EXPECT_FALSE(Fits("abd", "900150983cd24fb0d6963f7d28e17f72"));
  EXPECT_FALSE(Fits("abc", ""));
  EXPECT_FALSE(Fits("abc", "no digest at all"));
}

// The tags are those of 17 MiB of "a", made with openssl: each part's digest, and the digest of these.
TEST(TagCheckTest, ComparesTheDigestOfParts) {
  const std::string bytes(17 * kMiB, 'a');
  EXPECT_TRUE(Fits(bytes, "e8da631c89d64f4cd11f6dc84f6f93a7-3"));
  EXPECT_TRUE(Fits(bytes, "ad4bfab256c5c1dbdb04e0f6cdf149f4-4"));
  std::string other = bytes;
  other[9 * kMiB] = 'b';
  EXPECT_FALSE(Fits(other, "e8da631c89d64f4cd11f6dc84f6f93a7-3"));
}

TEST(TagCheckTest, TriesThePartSizesThatMakeSoManyParts) {
  EXPECT_THAT(LikelyPartSizes(17 * kMiB, 3), ElementsAre(8 * kMiB));
  EXPECT_THAT(LikelyPartSizes(17 * kMiB, 2), ElementsAre(16 * kMiB, 15 * kMiB, 10 * kMiB));
  EXPECT_THAT(LikelyPartSizes(16 * kMiB, 2), Contains(8 * kMiB));
  EXPECT_EQ(LikelyPartSizes(5, 1).size(), 1u) << "all of them give the same tag";
  EXPECT_TRUE(LikelyPartSizes(5, 2).empty());
  EXPECT_TRUE(LikelyPartSizes(5, 0).empty());
}

TEST(TagCheckTest, ReadsFiles) {
  const Tests::CTempFolder folder;
  const std::string file = folder.Write("file", "abc");
  EXPECT_TRUE(IsFileOfTag(file, 3, "900150983cd24fb0d6963f7d28e17f72"));
  EXPECT_FALSE(IsFileOfTag(file, 4, "900150983cd24fb0d6963f7d28e17f72"));
  EXPECT_FALSE(IsFileOfTag(file, 3, "900150983cd24fb0d6963f7d28e17f73"));
  EXPECT_THROW(IsFileOfTag(folder.Path("none"), 3, "x"), CFailure);
}

}  // namespace
}  // namespace Tansy::Cli
