#include "TargetFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "Failure.h"
#include "TreeFile.h"
#include "fakes/TempFolder.h"

namespace Tansy::Cli {
namespace {

using testing::HasSubstr;

class TargetFolderTest : public testing::Test {
 protected:
  void Put(const std::string& name, const std::string& content) {
    CTargetFolder target(folder_.Path("target"));
    CTreeFile file(target, name);
    file.WriteAt(content.data(), content.size(), 0);
    file.Commit();
  }

  std::string FailureOf(const std::string& name) {
    try {
      Put(name, "new");
    } catch (const CFailure& failure) {
      return failure.what();
    }
    return "";
  }

  std::size_t CountAll() const {
    const auto all = std::filesystem::recursive_directory_iterator(folder_.GetPath());
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }

  Tests::CTempFolder folder_;
};

TEST_F(TargetFolderTest, TakesNamesThatStayInTheFolder) {
  for (const char* name :
       {"a", "a/b/c", ".hidden", ".tansy-x.part/a", "..a", "a..", "...", "a b", "\xc3\xa4", "\xff", "a:b", "~"}) {
    EXPECT_EQ(LocalNameOf(name), name);
  }
}

TEST_F(TargetFolderTest, RefusesNamesThatCouldLeadOutOfTheFolder) {
  for (const std::string& name :
       {std::string(""), std::string("/"), std::string("/etc/passwd"), std::string(".."), std::string("../a"),
        std::string("a/../../b"), std::string("a/.."), std::string("."), std::string("a/./b"), std::string("a//b"),
        std::string("a/"), std::string("a\\..\\b"), std::string("a\nb"), std::string("a\x1b[2Jb"),
        std::string("a\0b", 3), std::string("\x7f"), std::string("a/.tansy-film.mp4.pin")}) {
    EXPECT_THROW(LocalNameOf(name), CFailure) << testing::PrintToString(name);
  }
}

TEST_F(TargetFolderTest, LeavesPipesAndDevicesAlone) {
  std::filesystem::create_directories(folder_.Path("target"));
  const std::string pipe = folder_.Path("target/pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_THAT(FailureOf("pipe"), HasSubstr("a device or pipe is in the way"));
  EXPECT_TRUE(std::filesystem::is_fifo(pipe));
  EXPECT_EQ(CountAll(), 2u);
  CTargetFolder target(folder_.Path("target"));
  CTreeFile file(target, "late");
  ASSERT_EQ(mkfifo(folder_.Path("target/late").c_str(), 0600), 0);
  EXPECT_THROW(file.Commit(), CFailure);
  EXPECT_TRUE(std::filesystem::is_fifo(folder_.Path("target/late")));
}

TEST_F(TargetFolderTest, MakesTheFoldersOnTheWay) {
  Put("a/b/c", "content");
  EXPECT_EQ(folder_.Read("target/a/b/c"), "content");
  Put("a/b/c", "new");
  EXPECT_EQ(folder_.Read("target/a/b/c"), "new");
}

TEST_F(TargetFolderTest, WritesThroughNoLink) {
  folder_.Write("outside/file", "old");
  std::filesystem::create_directory(folder_.Path("target"));
  std::filesystem::create_directory_symlink("../outside", folder_.Path("target/link"));
  std::filesystem::create_symlink("../outside/file", folder_.Path("target/link-to-file"));
  EXPECT_NE(FailureOf("link/file"), "");
  EXPECT_NE(FailureOf("link/new/file"), "");
  EXPECT_THAT(FailureOf("link-to-file"), HasSubstr("a link is in the way"));
  EXPECT_TRUE(std::filesystem::is_symlink(folder_.Path("target/link-to-file")));
  EXPECT_EQ(folder_.Read("outside/file"), "old");
  EXPECT_FALSE(folder_.Exists("outside/new"));
}

TEST_F(TargetFolderTest, SaysWhatIsInTheWay) {
  folder_.Write("target/file", "old");
  folder_.Write("target/folder/x", "old");
  EXPECT_THAT(FailureOf("file/below"), HasSubstr("a file is in the way"));
  EXPECT_THAT(FailureOf("folder"), HasSubstr("a folder is in the way"));
  EXPECT_EQ(folder_.Read("target/file"), "old");
  EXPECT_EQ(CountAll(), 4u) << "no hidden file is left";
}

TEST_F(TargetFolderTest, LeavesNothingOfAFileThatIsNotComplete) {
  folder_.Write("target/file", "old");
  {
    CTargetFolder target(folder_.Path("target"));
    CTreeFile file(target, "file");
    file.WriteAt("half", 4, 0);
    EXPECT_EQ(folder_.Read("target/file"), "old");
  }
  EXPECT_EQ(folder_.Read("target/file"), "old");
  EXPECT_EQ(CountAll(), 2u);
}

TEST_F(TargetFolderTest, RemovesFilesAndFoldersThatBecomeEmpty) {
  folder_.Write("target/a/b/c", "1");
  folder_.Write("target/a/d", "1");
  CTargetFolder target(folder_.Path("target"));
  target.RemoveFile("a/b/c");
  EXPECT_FALSE(folder_.Exists("target/a/b"));
  EXPECT_TRUE(folder_.Exists("target/a/d"));
  EXPECT_NO_THROW(target.RemoveFile("a/b/c")) << "somebody else has removed it";
  EXPECT_THROW(target.RemoveFile("a"), CFailure) << "it is a folder";
}

TEST_F(TargetFolderTest, IsMadeWhenItIsMissing) {
  CTargetFolder target(folder_.Path("new/below"));
  EXPECT_TRUE(std::filesystem::is_directory(folder_.Path("new/below")));
  const std::string file = folder_.Write("file", "");
  EXPECT_THROW(CTargetFolder{file}, CFailure);
}

}  // namespace
}  // namespace Tansy::Cli
