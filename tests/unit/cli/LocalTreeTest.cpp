#include "LocalTree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
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

// A folder that gives what it is told and knows nothing else.
class CToldFolder final : public HostSystem::IFolder {
 public:
  explicit CToldFolder(const std::vector<HostSystem::FolderEntry>& entries) : entries_(entries) {}

  int List(std::vector<HostSystem::FolderEntry>& entries) override {
    entries = entries_;
    return 0;
  }
  int Create(const std::string&, std::unique_ptr<HostSystem::IFile>&) override { return ENOSYS; }
  int OpenForReading(const std::string&, std::unique_ptr<HostSystem::IFile>&) override { return ENOSYS; }
  int OpenForWriting(const std::string&, std::unique_ptr<HostSystem::IFile>&) override { return ENOSYS; }
  int OpenFolder(const std::string&, std::unique_ptr<HostSystem::IFolder>&) override { return ENOSYS; }
  int MakeFolder(const std::string&) override { return ENOSYS; }
  int Rename(const std::string&, const std::string&) override { return ENOSYS; }
  int Remove(const std::string&) override { return ENOSYS; }
  int RemoveFolder(const std::string&) override { return ENOSYS; }
  int GetRoom(std::uint64_t&, std::uint64_t&) override { return ENOSYS; }
  int Sync() override { return ENOSYS; }

 private:
  const std::vector<HostSystem::FolderEntry> entries_;
};

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

// A folder's own name counts with its slash: "a-b" and "a.b" come before what is in "a", and "a0" behind it.
TEST(LocalTreeTest, WalksInTheOrderOfTheBytesOfWholeNames) {
  const Tests::CTempFolder folder;
  std::vector<std::string> names = {"a-b",     "a.b", "a/b",   "a/-",  "a/b.c/x", "a/b0",
                                    "a/c/d/e", "a0",  "a\xff", "aa/z", "B",       "\x01x"};
  for (const std::string& name : names) {
    folder.Write(name, "");
  }
  std::filesystem::create_symlink("nowhere", folder.Path("a/b.link"));
  std::sort(names.begin(), names.end());
  const auto top = OpenToWalk(folder.GetPath());
  CLocalWalk walk(*top, folder.GetPath());
  for (const std::string& name : names) {
    const std::optional<LocalEntry> file = walk.Next();
    ASSERT_TRUE(file.has_value()) << name;
    EXPECT_EQ(file->name, name);
    EXPECT_EQ(Cli::IsSkipped(walk.LeftOut(), "a/b.link/x"), name > "a/b.link") << "known as soon as it was passed";
  }
  EXPECT_FALSE(walk.Next().has_value());
  EXPECT_FALSE(walk.Next().has_value());
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

// What is not known is no link: a disk that fails must not look like a folder of links.
TEST(LocalTreeTest, SaysWhatItCannotLookAt) {
  CToldFolder folder({{.name = "a", .is_file = true, .size = 1},
                      {.name = "b", .error = EIO},
                      {.name = "c", .error = EIO},
                      {.name = "vanished", .error = ENOENT}});
  const LocalTree tree = WalkFolder(folder, "dir");
  EXPECT_THAT(NamesOf(tree), ElementsAre("a 1"));
  EXPECT_TRUE(tree.skipped.empty());
  ASSERT_EQ(tree.failures.size(), 1u);
  EXPECT_THAT(tree.failures[0].what(), testing::StartsWith("dir/b: "));
}

// Without the permission to search it, a folder tells the names of its files and nothing else.
TEST(LocalTreeTest, SaysThatItCannotLookIntoAFolder) {
  constexpr uid_t kNobody = 65534;
  const Tests::CTempFolder folder;
  folder.Write("a", "1");
  folder.Write("closed/b", "1");
  folder.Write("closed/c", "1");
  std::filesystem::permissions(folder.GetPath(), std::filesystem::perms{0755});
  std::filesystem::permissions(folder.Path("closed"), std::filesystem::perms{0444});
  // The superuser may look into any folder, so the test is somebody else for a moment.
  const uid_t before = geteuid();
  ASSERT_TRUE(before != 0 || seteuid(kNobody) == 0);
  const LocalTree tree = WalkFolder(folder.GetPath());
  ASSERT_EQ(seteuid(before), 0);
  std::filesystem::permissions(folder.Path("closed"), std::filesystem::perms{0755});
  EXPECT_THAT(NamesOf(tree), ElementsAre("a 1"));
  EXPECT_TRUE(tree.skipped.empty());
  ASSERT_EQ(tree.failures.size(), 1u);
  EXPECT_EQ(tree.failures[0].GetExitCode(), kExitDenied);
  EXPECT_THAT(tree.failures[0].what(), testing::HasSubstr("/closed/"));
}

}  // namespace
}  // namespace Tansy::Cli
