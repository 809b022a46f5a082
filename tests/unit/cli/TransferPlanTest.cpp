#include "TransferPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Tansy::Cli {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const S3Path kRemote{"b", "p"};

RemoteObject Object(const std::string& key, std::uint64_t size = 1) {
  return {key, size, "tag", ""};
}

// Writes a plan as "put FILE s3://...", with "?" in front when the bytes decide.
std::vector<std::string> TextsOf(const std::vector<Transfer>& transfers) {
  std::vector<std::string> texts;
  for (const Transfer& transfer : transfers) {
    const std::string mark = transfer.only_when_different ? "?" : "";
    switch (transfer.kind) {
      case Transfer::EKind::kPut:
        texts.push_back(mark + "put " + transfer.file + " " + transfer.remote.Url());
        break;
      case Transfer::EKind::kGet:
        texts.push_back(mark + "get " + transfer.remote.Url() + " " + transfer.file);
        break;
      case Transfer::EKind::kRemoveObject:
        texts.push_back("remove " + transfer.remote.Url());
        break;
      case Transfer::EKind::kRemoveFile:
        texts.push_back("remove " + transfer.file);
        break;
      case Transfer::EKind::kCopy:
        texts.emplace_back("copy");
        break;
    }
  }
  return texts;
}

std::vector<std::string> TextsOf(const TransferPlan& plan) {
  return TextsOf(plan.transfers);
}

LocalTree Tree(const std::vector<LocalEntry>& files) {
  LocalTree tree;
  tree.files = files;
  return tree;
}

// What a sync of these two sides does, removals last and only with `remove` and when everything is known.
TransferPlan PlanSync(CSyncPlan::EWay way, const LocalTree& tree, const std::vector<RemoteObject>& objects,
                      bool remove) {
  TransferPlan plan;
  std::vector<Transfer> removals;
  std::size_t next = 0;
  const auto next_file = [&]() -> std::optional<LocalEntry> {
    return next < tree.files.size() ? std::optional<LocalEntry>(tree.files[next++]) : std::nullopt;
  };
  CSyncPlan sync(way, "dir", kRemote, next_file, tree,
                 {[&](Transfer transfer) { plan.transfers.push_back(std::move(transfer)); },
                  [&](Transfer removal) { removals.push_back(std::move(removal)); },
                  [&](const CFailure& failure) { plan.failures.push_back(failure); }});
  for (const RemoteObject& object : objects) {
    sync.Take(object);
  }
  sync.Finish();
  if (remove && tree.failures.empty() && plan.failures.empty()) {
    plan.transfers.insert(plan.transfers.end(), removals.begin(), removals.end());
  }
  return plan;
}

TransferPlan PlanSyncUp(const LocalTree& tree, const std::vector<RemoteObject>& objects, bool remove) {
  return PlanSync(CSyncPlan::EWay::kUp, tree, objects, remove);
}

TransferPlan PlanSyncDown(const LocalTree& tree, const std::vector<RemoteObject>& objects, bool remove) {
  return PlanSync(CSyncPlan::EWay::kDown, tree, objects, remove);
}

TEST(TransferPlanTest, PutsAndGetsEverything) {
  EXPECT_THAT(TextsOf(PlanPuts("dir", Tree({{"a", 1}, {"x/y", 2}}), kRemote)),
              ElementsAre("put dir/a s3://b/p/a", "put dir/x/y s3://b/p/x/y"));
  EXPECT_THAT(TextsOf(PlanPuts("dir/", Tree({{"a", 1}}), {"b", ""})), ElementsAre("put dir/a s3://b/a"));
  EXPECT_THAT(TextsOf(PlanGets({Object("p/"), Object("p/a"), Object("p/x/"), Object("p/x/y")}, kRemote, "")),
              ElementsAre("get s3://b/p/a a", "get s3://b/p/x/y x/y"))
      << "keys that stand for folders are left alone";
  EXPECT_THAT(TextsOf(PlanGets({Object("p/a")}, kRemote, "of p/")), ElementsAre("get s3://b/p/a of p/a"));
}

TEST(TransferPlanTest, LeavesNamesOutThatWouldLeadOutOfTheFolder) {
  const TransferPlan plan = PlanGets(
      {Object("p/../a"), Object("p//etc/x"), Object("p/ok"), Object("p/a\nb"), Object("p/x/.tansy-film.mp4.part")},
      kRemote, "");
  EXPECT_THAT(TextsOf(plan), ElementsAre("get s3://b/p/ok ok"));
  EXPECT_EQ(plan.failures.size(), 4u);
}

TEST(TransferPlanTest, SyncsWhatIsMissingOrDifferent) {
  const LocalTree tree = Tree({{"larger", 2}, {"missing", 1}, {"same", 1}});
  const std::vector<RemoteObject> objects = {Object("p/larger", 3), Object("p/more"), Object("p/same")};
  EXPECT_THAT(
      TextsOf(PlanSyncUp(tree, objects, false)),
      ElementsAre("put dir/larger s3://b/p/larger", "put dir/missing s3://b/p/missing", "?put dir/same s3://b/p/same"));
  EXPECT_THAT(TextsOf(PlanSyncDown(tree, objects, false)),
              ElementsAre("get s3://b/p/larger larger", "get s3://b/p/more more", "?get s3://b/p/same same"));
}

TEST(TransferPlanTest, RemovesOnlyWhatTheOtherSideDoesNotHave) {
  const LocalTree tree = Tree({{"both", 1}, {"here", 1}});
  const std::vector<RemoteObject> objects = {Object("p/both"), Object("p/folder/"), Object("p/there")};
  EXPECT_THAT(TextsOf(PlanSyncUp(tree, objects, true)),
              ElementsAre("?put dir/both s3://b/p/both", "put dir/here s3://b/p/here", "remove s3://b/p/there"));
  EXPECT_THAT(TextsOf(PlanSyncDown(tree, objects, true)),
              ElementsAre("?get s3://b/p/both both", "get s3://b/p/there there", "remove here"));
}

// What is not known must not count as gone.
TEST(TransferPlanTest, RemovesNothingThatTheWalkDidNotSee) {
  LocalTree tree = Tree({{"a", 1}});
  tree.skipped = {"link"};
  const std::vector<RemoteObject> objects = {Object("p/a"), Object("p/link"), Object("p/link/x"), Object("p/linked")};
  EXPECT_THAT(TextsOf(PlanSyncUp(tree, objects, true)), ElementsAre("?put dir/a s3://b/p/a", "remove s3://b/p/linked"));
  tree.failures.emplace_back(kExitDenied, "dir/closed: Permission denied", "");
  EXPECT_THAT(TextsOf(PlanSyncUp(tree, objects, true)), ElementsAre("?put dir/a s3://b/p/a"));
  EXPECT_THAT(TextsOf(PlanSyncDown(tree, {}, true)), IsEmpty());
}

// A link is there for what it leads to, and nobody knows what is behind it.
TEST(TransferPlanTest, ReplacesNothingThatTheWalkDidNotSee) {
  LocalTree tree = Tree({{"a", 1}});
  tree.skipped = {"link"};
  const TransferPlan plan =
      PlanSyncDown(tree, {Object("p/a"), Object("p/link"), Object("p/link/x"), Object("p/linked")}, true);
  EXPECT_THAT(TextsOf(plan), ElementsAre("?get s3://b/p/a a", "get s3://b/p/linked linked"));
  EXPECT_EQ(plan.failures.size(), 2u);
}

// The server has what stands here under a name that no transfer may write.
TEST(TransferPlanTest, RemovesNothingWhenAKeyCannotBeALocalName) {
  const TransferPlan plan = PlanSyncDown(Tree({{"a\\b", 1}, {"here", 1}}), {Object("p/a\\b"), Object("p/x")}, true);
  EXPECT_THAT(TextsOf(plan), ElementsAre("get s3://b/p/x x"));
  EXPECT_EQ(plan.failures.size(), 1u);
  EXPECT_THAT(TextsOf(PlanSyncDown(Tree({{"here", 1}}), {Object("p//x")}, true)), IsEmpty());
  EXPECT_THAT(TextsOf(PlanSyncUp(Tree({{"a\\b", 1}}), {Object("p/a\\b"), Object("p/x")}, true)),
              ElementsAre("?put dir/a\\b s3://b/p/a\\b", "remove s3://b/p/x"));
}

// Each name is said as soon as both sides have come so far, and no side is read ahead.
TEST(TransferPlanTest, SaysEachNameAtOnce) {
  std::vector<std::string> said;
  int read = 0;
  const std::vector<LocalEntry> files = {{"a", 1}, {"c", 1}, {"e", 1}};
  const LocalTree left_out;
  CSyncPlan sync(CSyncPlan::EWay::kUp, "dir", kRemote,
                 [&]() -> std::optional<LocalEntry> {
                   return read < 3 ? std::optional<LocalEntry>(files[static_cast<std::size_t>(read++)]) : std::nullopt;
                 },
                 left_out,
                 {[&](const Transfer& put) { said.push_back("+" + put.remote.key); },
                  [&](const Transfer& removal) { said.push_back("-" + removal.remote.key); }, [](const CFailure&) {}});
  EXPECT_EQ(read, 1);
  sync.Take(Object("p/b"));
  EXPECT_THAT(said, ElementsAre("+p/a", "-p/b"));
  EXPECT_EQ(read, 2);
  sync.Take(Object("p/c"));
  EXPECT_THAT(said, ElementsAre("+p/a", "-p/b", "+p/c"));
  sync.Finish();
  EXPECT_THAT(said, ElementsAre("+p/a", "-p/b", "+p/c", "+p/e"));
}

// In another order, what is there would look as if it were missing.
TEST(TransferPlanTest, EndsWhenObjectsComeInAnotherOrder) {
  EXPECT_THROW(PlanSyncUp(Tree({{"a", 1}}), {Object("p/b"), Object("p/a")}, true), CFailure);
  EXPECT_THROW(PlanSyncUp(Tree({{"a", 1}}), {Object("p/b"), Object("p/b")}, true), CFailure);
}

}  // namespace
}  // namespace Tansy::Cli
