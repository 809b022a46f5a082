#include "LocalTree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "fakes/TempFolder.h"

namespace Tansy::Cli {
namespace {

using testing::ElementsAre;

std::vector<std::string> NamesOf(const LocalTree& tree) {
  std::vector<std::string> names;
  for (const LocalEntry& entry : tree.files) {
    names.push_back(entry.name + " " + std::to_string(entry.size));
  }
  return names;
}

TEST(LocalTreeTest, FindsFilesInAllFolders) {
  const Tests::CTempFolder folder;
  folder.Write("b", "12");
  folder.Write("a/x/y", "1");
  folder.Write("a.b", "");
  folder.Write("a b\n\xff", "123");
  std::filesystem::create_directory(folder.Path("empty"));
  const LocalTree tree = WalkFolder(folder.GetPath());
  EXPECT_THAT(NamesOf(tree), ElementsAre("a b\n\xff 3", "a.b 0", "a/x/y 1", "b 2"));
  EXPECT_TRUE(tree.skipped.empty());
  EXPECT_TRUE(tree.failures.empty());
}

TEST(LocalTreeTest, GoesThroughNoLinkBelowItsTop) {
  const Tests::CTempFolder folder;
  folder.Write("top/file", "1");
  folder.Write("outside/secret", "1");
  std::filesystem::create_directory_symlink("../outside", folder.Path("top/link"));
  std::filesystem::create_symlink("file", folder.Path("top/link-to-file"));
  std::filesystem::create_directory_symlink(".", folder.Path("top/circle"));
  std::filesystem::create_directory_symlink("top", folder.Path("way"));
  const LocalTree tree = WalkFolder(folder.Path("way"));
  EXPECT_THAT(NamesOf(tree), ElementsAre("file 1"));
  EXPECT_THAT(tree.skipped, ElementsAre("circle", "link", "link-to-file"));
}

TEST(LocalTreeTest, LeavesOutWhatADownloadLeftBehind) {
  const Tests::CTempFolder folder;
  folder.Write(".tansy-x.part", "1");
  folder.Write(".tansy-x.pin", "1");
  folder.Write("a/.tansy-x.lock", "1");
  folder.Write(".tansy-notes", "1");
  EXPECT_THAT(NamesOf(WalkFolder(folder.GetPath())), ElementsAre(".tansy-notes 1"));
}

TEST(LocalTreeTest, SaysWhatItCannotOpen) {
  const Tests::CTempFolder folder;
  EXPECT_THROW(WalkFolder(folder.Path("none")), CFailure);
  EXPECT_THROW(WalkFolder(folder.Write("file", "")), CFailure);
}

}  // namespace
}  // namespace Tansy::Cli
