#include "ByteRange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace Tansy::Cli {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

std::vector<std::pair<std::uint64_t, std::uint64_t>> PiecesOf(ByteRange whole, std::size_t threads) {
  std::mutex mutex;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> pieces;
  CTeam team(threads);
  ForEachRange(whole, team, [&](ByteRange piece, const std::atomic<bool>&) {
    const std::lock_guard lock(mutex);
    pieces.emplace_back(piece.begin, piece.end);
  });
  std::sort(pieces.begin(), pieces.end());
  return pieces;
}

TEST(ByteRangeTest, CutsLargeRangesForSeveralThreads) {
  EXPECT_THAT(PiecesOf({5, 5 + 2 * kRangePiece + 1}, 2),
              ElementsAre(Pair(5, 5 + kRangePiece), Pair(5 + kRangePiece, 5 + 2 * kRangePiece),
                          Pair(5 + 2 * kRangePiece, 6 + 2 * kRangePiece)));
  EXPECT_THAT(PiecesOf({0, kRangePiece}, 4), ElementsAre(Pair(0, kRangePiece)));
  EXPECT_THAT(PiecesOf({0, 3 * kRangePiece}, 1), ElementsAre(Pair(0, 3 * kRangePiece))) << "alone it is one piece";
  EXPECT_THAT(PiecesOf({7, 7}, 4), IsEmpty());
  EXPECT_THAT(PiecesOf({7, 7}, 1), IsEmpty());
}

TEST(ByteRangeTest, BeginsNothingAfterAFailure) {
  int calls = 0;
  CTeam team(2);
  EXPECT_THROW(ForEachRange({0, 100 * kRangePiece}, team,
                            [&](ByteRange piece, const std::atomic<bool>& stop) {
                              if (piece.begin == 0) {
                                throw std::runtime_error("failed");
                              }
                              while (!stop) {
                                std::this_thread::yield();
                              }
                              ++calls;
                            }),
               std::runtime_error);
  EXPECT_LE(calls, 1) << "only the other thread was under way";
}

}  // namespace
}  // namespace Tansy::Cli
