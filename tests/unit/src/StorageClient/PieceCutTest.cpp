#include "StorageClient/PieceCut.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "ObjectClientFixture.h"

namespace Tansy::CloudStorage {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Gives the parts that are sent for these pieces when the first piece had `part_size` bytes. The last piece ends the
// object.
class PieceCutTest : public testing::Test {
 protected:
  bool Cut(std::string_view piece, std::uint32_t part_size, bool last) {
    SPieceCut cut;
    const bool done = CutPiece(cut, tail_, piece, part_size, last);
    if (done) {
      sent_.insert(sent_.end(), cut.parts.begin(), cut.parts.end());
      tail_ = cut.tail;
    }
    return done;
  }

  std::vector<std::string> sent_;
  std::string tail_;
};

TEST_F(PieceCutTest, LeavesPiecesOfThePartSizeAlone) {
  EXPECT_TRUE(Cut("abc", 3, false));
  EXPECT_TRUE(Cut("def", 3, true));
  EXPECT_THAT(sent_, ElementsAre("abc", "def"));
  EXPECT_EQ(tail_, "");
}

TEST_F(PieceCutTest, LeavesASmallerLastPieceAlone) {
  EXPECT_TRUE(Cut("ab", 3, true));
  EXPECT_THAT(sent_, ElementsAre("ab"));
}

TEST_F(PieceCutTest, SendsNothingForAnEmptyPiece) {
  EXPECT_TRUE(Cut("", 3, false));
  EXPECT_TRUE(Cut("", 3, true));
  EXPECT_THAT(sent_, IsEmpty());
}

TEST_F(PieceCutTest, RefusesWhatWouldMakeSmallParts) {
  EXPECT_FALSE(Cut(std::string(kMinCutPartBytes, 'x'), kMinCutPartBytes - 1, false));
  EXPECT_FALSE(Cut(std::string(kMinCutPartBytes, 'x'), kMinCutPartBytes - 1, true));
  EXPECT_FALSE(Cut("x", 2, false));
  EXPECT_FALSE(Cut("x", 0, true)) << "after an empty first piece";
  EXPECT_TRUE(Cut("x", kMinCutPartBytes, false));
  EXPECT_EQ(tail_, "x");
}

TEST_F(PieceCutTest, KeepsEveryByteInItsPlaceWhateverTheSizes) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 50; ++round) {
    const std::uint32_t part_size = kMinCutPartBytes + random() % 100;
    const std::string bytes = Tests::RandomBytes(8 * part_size, random());
    sent_.clear();
    tail_.clear();
    for (std::size_t begin = 0; begin < bytes.size();) {
      const std::size_t sizes[] = {part_size, part_size - 1, part_size + 1, random() % (3 * part_size), random() % 10};
      const std::string piece = bytes.substr(begin, sizes[random() % 5]);
      begin += piece.size();
      ASSERT_TRUE(Cut(piece, part_size, begin == bytes.size()));
    }
    std::string object;
    for (const std::string& part : sent_) {
      ASSERT_TRUE(part.size() == part_size || &part == &sent_.back()) << part.size();
      ASSERT_FALSE(part.empty());
      object += part;
    }
    ASSERT_TRUE(object == bytes);
    ASSERT_EQ(tail_, "");
  }
}

}  // namespace
}  // namespace Tansy::CloudStorage
