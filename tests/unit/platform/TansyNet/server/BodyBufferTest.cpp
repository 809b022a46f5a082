#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "TansyNet/MemoryAccount.h"
#include "TansyNet/server/BodyBuffer.h"
#include "fakes/FailingAllocation.h"

namespace {

using TansyNet::CBodyBuffer;
using TansyNet::CMemoryAccount;
using TansyNet::CountedBytes;
using TansyNet::CPieceStore;
using TansyNet::MemoryUse;

TEST(BodyBuffer, CollectsExactlyItsLength) {
  CBodyBuffer body;
  body.Start(5, MemoryUse::kWork);
  std::string_view input = "abc";
  body.Consume(input);
  EXPECT_TRUE(input.empty());
  EXPECT_FALSE(body.IsComplete());
  input = "defg";
  body.Consume(input);
  EXPECT_EQ(input, "fg");
  EXPECT_TRUE(body.IsComplete());
  EXPECT_TRUE(body.Space().empty());
  EXPECT_EQ(body.Take().bytes, "abcde");
  EXPECT_TRUE(body.IsComplete()) << "it is empty again";
}

TEST(BodyBuffer, CostsNothingBeforeBytesCome) {
  CBodyBuffer body;
  body.Start(10485760, MemoryUse::kWork);
  EXPECT_EQ(body.Used(), 0U);
  EXPECT_LE(body.Space().size(), 4096U);
}

TEST(BodyBuffer, GrowsWithWhatCame) {
  constexpr std::size_t kLength = 20000000;  // no spare memory is kept for so much
  CBodyBuffer body;
  body.Start(kLength, MemoryUse::kWork);
  std::size_t steps = 0;
  while (!body.IsComplete()) {
    const auto space = body.Space();
    ASSERT_FALSE(space.empty());
    EXPECT_LE(space.size(), std::max<std::size_t>(4096, body.Used()));
    std::fill(space.begin(), space.end(), static_cast<char>('a' + steps % 26));
    body.Commit(space.size());
    ++steps;
  }
  EXPECT_LT(steps, 200U);
  EXPECT_EQ(body.Take().bytes.size(), kLength);
}

TEST(BodyBuffer, ReusesMemory) {
  CBodyBuffer body;
  CountedBytes storage{.bytes = std::string(100, 'x'), .share = {}};
  const char* const memory = storage.bytes.data();
  body.Start(50, MemoryUse::kWork, std::move(storage));
  EXPECT_EQ(body.Space().size(), 50U);
  EXPECT_EQ(body.Space().data(), memory);
  body.Commit(20);
  EXPECT_EQ(body.Take().bytes, std::string(20, 'x'));
}

// Reads a body of this length that consists of `letter`, and delivers it.
std::shared_ptr<const std::string> Receive(std::size_t length, char letter, std::size_t* largest_step = nullptr) {
  CBodyBuffer body;
  body.Start(length, MemoryUse::kArriving);
  while (!body.IsComplete()) {
    EXPECT_TRUE(body.ClaimMemory());
    const auto space = body.Space();
    if (largest_step != nullptr) {
      *largest_step = std::max(*largest_step, space.size());
    }
    std::fill(space.begin(), space.end(), letter);
    body.Commit(space.size());
  }
  return TansyNet::ShareBytes(body.Take());
}

TEST(SpareBodies, ABodyGoesOnInTheMemoryOfAnEarlierOne) {
  constexpr std::size_t kLength = 1000000;
  const char* const memory = Receive(kLength, 'a')->data();
  std::size_t step = 0;
  const auto second = Receive(kLength - 1000, 'b', &step);
  EXPECT_EQ(second->data(), memory);
  EXPECT_TRUE(*second == std::string(kLength - 1000, 'b'));
  EXPECT_GT(step, kLength / 2) << "nothing is cleared once more, so the rest is read in one go";
  // It is in use, so the next body gets memory of its own.
  const auto third = Receive(kLength - 1000, 'c');
  EXPECT_NE(third->data(), memory);
  EXPECT_TRUE(*second == std::string(kLength - 1000, 'b'));
}

// What comes before the spare memory is used has to be cleared, and is copied.
TEST(SpareBodies, ABodyTakesSpareMemoryAsSoonAsItMay) {
  constexpr std::size_t kLength = 200000;
  constexpr std::size_t kProof = 65536;  // so much must have come
  TansyNet::CSpareBodies::Process().Clear();
  TansyNet::CSpareBodies::Process().Give(std::string(kLength, 'x'));
  CBodyBuffer body;
  body.Start(kLength, MemoryUse::kWork);
  const std::string text(kProof, 'a');
  std::string_view input = text;
  body.Consume(input);
  EXPECT_EQ(body.Space().size(), kLength - kProof);
}

// The first body of a process, too, which ctest makes of this one: a destructor that fails ends the program.
TEST(SpareBodies, TheLastOwnerOfABodyNeedsNoMemory) {
  auto body = TansyNet::ShareBytes({std::string(1000000, 'a'), TansyNet::CMemoryShare()});
  const Tansy::Tests::CFailingAllocation failing(1);
  body.reset();
  EXPECT_FALSE(failing.HasFailed());
}

// Such a body has its own room already and must not wait for more.
TEST(SpareBodies, ABodyDoesWithoutSpareMemoryThatItHasNoRoomFor) {
  constexpr std::size_t kLength = 300000;
  TansyNet::CSpareBodies::Process().Clear();
  TansyNet::CSpareBodies::Process().Give(std::string(kLength + 100000, 'x'));
  TansyNet::CMemoryShare others;
  const std::uint64_t limit = CMemoryAccount::Process().Limit();
  ASSERT_TRUE(others.Resize(limit - CMemoryAccount::Process().Used() - kLength));
  EXPECT_TRUE(*Receive(kLength, 'a') == std::string(kLength, 'a'));
  EXPECT_LE(CMemoryAccount::Process().Used(), limit);
}

TEST(SpareBodies, MuchLargerMemoryIsLeftForLargerBodies) {
  const char* const memory = Receive(5000000, 'a')->data();
  EXPECT_NE(Receive(200000, 'b')->data(), memory);
  EXPECT_EQ(Receive(5000000, 'c')->data(), memory);
}

TEST(SpareBodies, KeepsABoundedAmountAndNothingWhileMemoryIsShort) {
  TansyNet::CSpareBodies& spares = TansyNet::CSpareBodies::Process();
  const std::size_t most = CMemoryAccount::Process().Limit() / 32;
  const auto give_many = [&] {
    for (std::size_t given = 0; given < 2 * most; given += 3000000) {
      spares.Give(std::string(3000000, 'x'));
    }
  };
  const auto take_all = [&] {
    std::size_t taken = 0;
    for (std::string spare = spares.Take(3000000); !spare.empty(); spare = spares.Take(3000000)) {
      taken += spare.size();
    }
    return taken;
  };
  give_many();
  const std::size_t kept = take_all();
  EXPECT_GT(kept, most / 2);
  EXPECT_LE(kept, most);
  give_many();
  TansyNet::CMemoryShare others;
  ASSERT_TRUE(others.Resize(CMemoryAccount::Process().Limit() / 10 * 9));
  give_many();
  EXPECT_EQ(take_all(), 0U);
  others.Resize(0);
  give_many();
  EXPECT_GT(take_all(), most / 2);
}

TEST(PieceStore, GetsMemoryBackWithTheLastOwner) {
  const auto store = std::make_shared<CPieceStore>();
  EXPECT_EQ(store->TakeSpare().bytes, "");
  auto piece = store->Share({.bytes = std::string(1000, 'p'), .share = {}});
  auto copy = piece;
  const char* const memory = piece->data();
  piece.reset();
  EXPECT_EQ(store->TakeSpare().bytes, "");
  copy.reset();
  const CountedBytes spare = store->TakeSpare();
  EXPECT_EQ(spare.bytes.data(), memory);
  EXPECT_EQ(store->TakeSpare().bytes, "");
}

TEST(PieceStore, LeavesItsMemoryToTheNextUpload) {
  constexpr std::size_t kSize = 3500000;
  auto store = std::make_shared<CPieceStore>();
  auto first = store->Share({.bytes = std::string(kSize, 'a'), .share = {}});
  auto last = store->Share({.bytes = std::string(kSize, 'b'), .share = {}});
  const std::set<const void*> memory = {first->data(), last->data()};
  first.reset();
  store.reset();
  last.reset();
  const std::string one = TansyNet::CSpareBodies::Process().Take(kSize);
  const std::string other = TansyNet::CSpareBodies::Process().Take(kSize);
  EXPECT_EQ((std::set<const void*>{one.data(), other.data()}), memory);
}

TEST(PieceStore, MayDieBeforeItsPieces) {
  auto store = std::make_shared<CPieceStore>();
  const auto piece = store->Share({.bytes = "piece", .share = {}});
  store.reset();
  EXPECT_EQ(*piece, "piece");
}

TEST(BodyBuffer, CountsABodyUntilItsLastOwnerIsGone) {
  CBodyBuffer body;
  body.Start(300, MemoryUse::kWork);
  const std::string text(300, 'x');
  std::string_view input = text;
  body.Consume(input);
  EXPECT_TRUE(body.ClaimMemory());
  auto shared = TansyNet::ShareBytes(body.Take());
  const auto copy = shared;
  shared.reset();
  EXPECT_EQ(CMemoryAccount::Process().Used(), 300U);
}

}  // namespace
