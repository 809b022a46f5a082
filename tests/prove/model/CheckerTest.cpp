// The checker by itself: histories that can have happened, and histories that cannot.
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Body.h"
#include "History.h"
#include "Linearisable.h"
#include "NodeMemory.h"
#include "Plan.h"

namespace prove {
namespace {

constexpr Version kA = 0x100;
constexpr Version kB = 0x200;

Operation Op(EKind kind, Version version, std::int64_t begun, std::int64_t ended) {
  return {"k", kind, version, 0, begun, ended, false};
}
Operation Write(Version version, std::int64_t begun, std::int64_t ended) {
  return Op(EKind::kWrite, version, begun, ended);
}
Operation Read(Version version, std::int64_t begun, std::int64_t ended) {
  return Op(EKind::kRead, version, begun, ended);
}
Operation Replace(Version expected, Version version, std::int64_t begun, std::int64_t ended) {
  Operation operation = Op(EKind::kReplace, version, begun, ended);
  operation.expected = expected;
  return operation;
}
Operation SeeOther(Version version, std::int64_t begun, std::int64_t ended) {
  return Op(EKind::kSeeOther, version, begun, ended);
}
Operation Perhaps(Operation operation) {
  operation.is_unknown = true;
  return operation;
}

bool CanBe(const std::vector<Operation>& operations, Contents contents = {kAbsent}) {
  return !FindContradiction(operations, contents).has_value();
}

TEST(CheckerTest, OneAfterAnother) {
  EXPECT_TRUE(CanBe({}));
  EXPECT_TRUE(CanBe({Read(kAbsent, 1, 2), Write(kA, 3, 4), Read(kA, 5, 6), Op(EKind::kRemove, kAbsent, 7, 8),
                     Read(kAbsent, 9, 10), Op(EKind::kCreate, kB, 11, 12), Op(EKind::kSee, kAbsent, 13, 14)}));
  EXPECT_FALSE(CanBe({Write(kA, 1, 2), Read(kAbsent, 3, 4)})) << "a write that is lost";
  EXPECT_FALSE(CanBe({Write(kA, 1, 2), Read(kB, 3, 4)})) << "what nobody wrote";
  EXPECT_FALSE(CanBe({Write(kA, 1, 2), Write(kB, 3, 4), Read(kA, 5, 6)})) << "a stale read";
  EXPECT_FALSE(CanBe({Op(EKind::kRemove, kAbsent, 1, 2)})) << "a removal of nothing";
  EXPECT_FALSE(CanBe({Op(EKind::kSee, kAbsent, 1, 2)}));
  EXPECT_FALSE(CanBe({Write(kA, 1, 2), Op(EKind::kCreate, kB, 3, 4)})) << "made twice";
}

TEST(CheckerTest, TheOrderOfTheListDoesNotCount) {
  EXPECT_TRUE(CanBe({Read(kA, 5, 6), Write(kA, 3, 4)}));
  EXPECT_FALSE(CanBe({Read(kA, 1, 2), Write(kA, 3, 4)})) << "read before it was written";
}

TEST(CheckerTest, OperationsAtOneTimeHaveAnyOrder) {
  EXPECT_TRUE(CanBe({Write(kA, 1, 10), Read(kAbsent, 2, 9), Read(kA, 3, 8)}));
  EXPECT_TRUE(CanBe({Write(kA, 1, 10), Write(kB, 2, 9), Read(kA, 11, 12)}));
  EXPECT_TRUE(CanBe({Write(kA, 1, 10), Write(kB, 2, 9), Read(kB, 11, 12)}));
  EXPECT_TRUE(CanBe({Write(kA, 1, 2), Read(kA, 2, 3)})) << "one moment is at one time";
  EXPECT_FALSE(CanBe({Write(kA, 1, 10), Write(kB, 2, 9), Read(kAbsent, 11, 12)})) << "a lost update";
  EXPECT_FALSE(CanBe({Write(kA, 1, 20), Read(kA, 2, 5), Read(kAbsent, 6, 9)})) << "a new value, then the old one";
  EXPECT_FALSE(CanBe({Write(kA, 1, 30), Write(kB, 1, 30), Read(kA, 2, 5), Read(kB, 6, 9), Read(kA, 10, 12)}))
      << "a value that comes back";
  EXPECT_FALSE(CanBe({Write(kA, 1, 2), Op(EKind::kRemove, kAbsent, 3, 10), Op(EKind::kRemove, kAbsent, 4, 9)}))
      << "removed twice";
}

TEST(CheckerTest, AnUnknownOutcomeIsOneOfTwo) {
  EXPECT_TRUE(CanBe({Perhaps(Write(kA, 1, 5)), Read(kA, 6, 7)}));
  EXPECT_TRUE(CanBe({Perhaps(Write(kA, 1, 5)), Read(kAbsent, 6, 7)}));
  EXPECT_FALSE(CanBe({Perhaps(Write(kA, 1, 5)), Read(kA, 6, 7), Read(kAbsent, 8, 9)}));
  EXPECT_FALSE(CanBe({Perhaps(Write(kA, 1, 5)), Read(kAbsent, 6, 7), Read(kA, 8, 9)})) << "later than its end";
  EXPECT_TRUE(CanBe({Perhaps(Write(kA, 1, 9)), Read(kAbsent, 2, 3), Read(kA, 4, 5)}));
  EXPECT_FALSE(CanBe({Write(kB, 0, 1), Perhaps(Write(kA, 2, 5)), Read(kAbsent, 6, 7)})) << "it loses what was there";
}

TEST(CheckerTest, AReplacementNeedsWhatItReplaces) {
  EXPECT_TRUE(CanBe({Write(kA, 1, 2), Replace(kA, kB, 3, 4), Read(kB, 5, 6)}));
  EXPECT_FALSE(CanBe({Write(kA, 1, 2), Write(kB, 3, 4), Replace(kA, 0x300, 5, 6)}));
  EXPECT_FALSE(CanBe({Replace(kA, kB, 1, 2)})) << "there was nothing";
  EXPECT_FALSE(CanBe({Write(kA, 1, 2), Replace(kA, kB, 3, 6), Replace(kA, 0x300, 4, 5)})) << "one of two fails";
}

TEST(CheckerTest, WhatIsNotThereIsSeen) {
  EXPECT_TRUE(CanBe({Write(kA, 1, 2), SeeOther(kB, 3, 4)}));
  EXPECT_TRUE(CanBe({SeeOther(kB, 3, 4)}));
  EXPECT_FALSE(CanBe({Write(kA, 1, 2), SeeOther(kA, 3, 4)}));
}

TEST(CheckerTest, WhatAKeyMayHoldIsTakenOver) {
  Contents contents = {kAbsent};
  EXPECT_FALSE(FindContradiction({Write(kA, 1, 2), Perhaps(Write(kB, 3, 4))}, contents));
  EXPECT_EQ(contents, (Contents{kA, kB}));
  EXPECT_TRUE(CanBe({Read(kB, 5, 6)}, contents));
  EXPECT_FALSE(CanBe({Read(kAbsent, 5, 6)}, contents));
}

TEST(CheckerTest, TheContradictionIsNamed) {
  Contents contents = {kAbsent};
  const auto found = FindContradiction({Write(kA, 1, 2), Read(kB, 3, 4), Read(kA, 5, 6)}, contents);
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(found->operation.begun, 3);
  EXPECT_EQ(Describe(*found),
            "k: client 0 read version 200 between 3 and 4 ns, but it can have held [version 100] only");
}

// Eight clients who all write and read one key without a pause: the search must not grow with the length.
TEST(CheckerTest, LongHistoriesOfManyClients) {
  std::vector<Operation> operations;
  for (std::int64_t i = 0; i < 400; ++i) {
    for (std::int64_t client = 0; client < 8; ++client) {
      const auto version = static_cast<Version>((i * 8 + client + 1) << 8);
      operations.push_back(Write(version, i * 100 + client, i * 100 + 50 + client));
    }
    operations.push_back(Read(static_cast<Version>((i * 8 + 3) << 8), i * 100 + 60, i * 100 + 61));
  }
  EXPECT_TRUE(CanBe(operations));
  operations.push_back(Read(kA, 50000, 50001));
  EXPECT_FALSE(CanBe(operations));
}

TEST(CheckerTest, TooManyAtOnceAreRefused) {
  std::vector<Operation> operations;
  for (int i = 0; i < 257; ++i) {
    operations.push_back(Write(kA, 1, 10));
  }
  Contents contents = {kAbsent};
  EXPECT_THROW(FindContradiction(operations, contents), std::length_error);
}

Operation At(int node, Operation operation) {
  operation.node = node;
  operation.is_from_memory = operation.kind == EKind::kRead && operation.version != kAbsent;
  return operation;
}

bool CanBeOnNodes(const std::vector<Operation>& operations, std::int64_t lag) {
  Contents contents = {kAbsent};
  return !FindContradiction(AsPromised(operations, lag), contents) && !FindForgotten(operations);
}

TEST(NodeMemoryTest, AnotherNodeMayBeBehindForAWhile) {
  const std::vector<Operation> writes = {At(0, Write(kA, 10, 20)), At(0, Write(kB, 30, 40))};
  const auto with = [&writes](const Operation& read) {
    std::vector<Operation> operations = writes;
    operations.push_back(read);
    return operations;
  };
  EXPECT_TRUE(CanBeOnNodes(with(At(1, Read(kA, 130, 140))), 100));
  EXPECT_FALSE(CanBeOnNodes(with(At(1, Read(kA, 150, 160))), 100)) << "too late";
  EXPECT_TRUE(CanBeOnNodes(with(At(1, Read(kB, 50, 60))), 100));
  EXPECT_FALSE(CanBeOnNodes(with(At(1, Read(kAbsent, 50, 60))), 100)) << "it asks the database for that";
  EXPECT_FALSE(CanBeOnNodes(with(At(0, Read(kA, 50, 60))), 100)) << "its own write";
}

TEST(NodeMemoryTest, WhatANodeHasShownItDoesNotForget) {
  const std::vector<Operation> writes = {At(0, Write(kA, 10, 20)), At(0, Write(kB, 30, 40)), At(1, Read(kB, 41, 42))};
  for (const int node : {1, 2}) {
    std::vector<Operation> operations = writes;
    operations.push_back(At(node, Read(kA, 43, 44)));
    EXPECT_EQ(CanBeOnNodes(operations, 100), node == 2) << node;
  }
  // A removal is remembered like a write.
  EXPECT_FALSE(CanBeOnNodes({At(0, Write(kA, 1, 2)), At(1, Write(kAbsent, 3, 4)), At(1, Read(kA, 5, 6))}, 100));
  EXPECT_TRUE(CanBeOnNodes({At(0, Write(kA, 1, 2)), At(1, Write(kAbsent, 3, 4)), At(2, Read(kA, 5, 6))}, 100));
  // Of two writes at one time nobody knows which is newer.
  EXPECT_TRUE(CanBeOnNodes({At(0, Write(kA, 1, 9)), At(1, Write(kB, 2, 3)), At(1, Read(kA, 5, 6))}, 100));
}

TEST(HistoryTest, AFileSaysTheSame) {
  CHistory history;
  history.Add({"a", EKind::kWrite, kA, 1, 1, 2, false});
  EXPECT_TRUE(history.Check().empty());
  history.Forget();
  history.Add({"a", EKind::kRead, kA, 2, 3, 4, false});
  history.Add({"a", EKind::kWrite, kB, 2, 3, 4, true});
  Operation replaced = {"c", EKind::kReplace, kB, 2, 3, 4, false, kA};
  replaced.node = 2;
  history.Add(replaced);
  history.Add(At(1, {"c", EKind::kRead, kA, 2, 5, 6, false}));
  history.Add({"b", EKind::kRemove, kAbsent, 3, 5, 6, false});
  history.AddFault("a mix of versions");
  std::stringstream file;
  history.Save(file);
  CHistory loaded;
  CHistory::Load(file, loaded);
  EXPECT_EQ(loaded.Check(), history.Check());
  EXPECT_EQ(loaded.Check().size(), 3U);
  EXPECT_EQ(loaded.GetContents("a"), (Contents{kA, kB}));
  std::istringstream damaged("operation a w");
  EXPECT_THROW(CHistory::Load(damaged, loaded), std::runtime_error);
}

TEST(BodyTest, EveryPieceNamesItsVersion) {
  CRecipes recipes;
  const Recipe whole = {kA, 100000, 0, {}};
  const Recipe parts = {kB, 100000, 4096, std::vector<std::uint8_t>(25, 2)};
  recipes.Add(whole);
  recipes.Add(parts);
  for (const Recipe& recipe : {whole, parts}) {
    const std::string bytes = MakeBody(recipe);
    ASSERT_EQ(bytes.size(), recipe.size);
    for (const std::uint64_t begin : {0, 1, 15, 16, 4090, 99968}) {
      const std::string piece = bytes.substr(begin, kSmallestPiece);
      EXPECT_EQ(piece, MakeBody(recipe, begin, kSmallestPiece));
      const Recognised seen = Recognise(recipes, piece, begin);
      EXPECT_EQ(seen.fault, "") << begin;
      EXPECT_EQ(seen.version, recipe.version) << begin;
      EXPECT_NE(Recognise(recipes, piece, begin + 16).fault, "") << "of another place";
    }
  }
}

TEST(BodyTest, WhatIsNotOneVersionIsSeen) {
  CRecipes recipes;
  const Recipe old_one = {kA, 50000, 0, {}};
  const Recipe new_one = {kB, 50000, 16384, {1, 2, 1, 1}};
  recipes.Add(old_one);
  recipes.Add(new_one);
  std::string mixed = MakeBody(new_one);
  mixed.replace(20000, 16, MakeBody(old_one), 20000, 16);
  EXPECT_EQ(Recognise(recipes, mixed, 0).fault, "version 200 has at 20000 bytes of version 100, sending 0");
  std::string old_part = MakeBody({kB, 50000, 16384, {1, 1, 1, 1}});
  EXPECT_EQ(Recognise(recipes, old_part, 0).fault, "version 200 has at 16384 bytes of version 200, sending 1");
  std::string hole = MakeBody(old_one);
  hole.replace(40000, 5000, 5000, 'x');
  EXPECT_EQ(Recognise(recipes, hole, 0).fault, "version 100 has at 40000 bytes of no version");
  EXPECT_NE(Recognise(recipes, MakeBody({0x300, 1000, 0, {}}), 0).fault, "") << "nobody sent it";
  EXPECT_NE(Recognise(recipes, "short", 0).fault, "");
}

TEST(PlanTest, ASeedGivesOnePlan) {
  const auto text = [](std::uint64_t seed, std::size_t number) {
    std::ostringstream plan;
    const Round round = MakeRound(seed, number, {});
    plan << static_cast<int>(round.end) << ' ' << round.answers << ' ' << round.clock_step;
    for (const auto& client : round.clients) {
      for (const Step& step : client) {
        plan << '\n'
             << static_cast<int>(step.action) << step.bucket << step.key << ' ' << step.version << ' ' << step.size
             << ' ' << step.begin << ' ' << step.end << ' ' << step.upload << ' ' << step.part;
      }
    }
    return plan.str();
  };
  EXPECT_EQ(text(7, 3), text(7, 3));
  EXPECT_NE(text(7, 3), text(7, 4));
  EXPECT_NE(text(7, 3), text(8, 3));
}

}  // namespace
}  // namespace prove
