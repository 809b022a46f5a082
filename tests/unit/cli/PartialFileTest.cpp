#include "PartialFile.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "Failure.h"
#include "fakes/TempFolder.h"

namespace Tansy::Cli {
namespace {

class PartialFileTest : public testing::Test {
 protected:
  static void Write(const CPartialFile& file, const std::string& content) {
    std::ofstream(file.Path(), std::ios::binary) << content;
  }

  static EExitCode ExitCodeOf(const std::string& target) {
    try {
      CPartialFile file(target);
      return kExitDone;
    } catch (const CFailure& failure) {
      return failure.GetExitCode();
    }
  }

  Tests::CTempFolder folder_;
};

TEST_F(PartialFileTest, AppearsWhenItIsComplete) {
  CPartialFile file(folder_.Path("target"));
  Write(file, "whole");
  EXPECT_FALSE(std::filesystem::exists(folder_.Path("target")));
  file.Commit();
  EXPECT_EQ(folder_.Read("target"), "whole");
  EXPECT_EQ(folder_.Count(), 1u);
}

TEST_F(PartialFileTest, LeavesTheOldFileUntilThen) {
  folder_.Write("target", "old and longer");
  {
    CPartialFile file(folder_.Path("target"));
    Write(file, "new");
    EXPECT_EQ(folder_.Read("target"), "old and longer");
  }
  EXPECT_EQ(folder_.Read("target"), "old and longer");
  EXPECT_EQ(folder_.Count(), 1u) << "nothing is left of it";
  CPartialFile file(folder_.Path("target"));
  Write(file, "new");
  file.Commit();
  EXPECT_EQ(folder_.Read("target"), "new");
}

TEST_F(PartialFileTest, FollowsALink) {
  folder_.Write("real/file", "old");
  std::filesystem::create_symlink(folder_.Path("real/file"), folder_.Path("link"));
  CPartialFile file(folder_.Path("link"));
  Write(file, "new");
  file.Commit();
  EXPECT_TRUE(std::filesystem::is_symlink(folder_.Path("link")));
  EXPECT_EQ(folder_.Read("real/file"), "new");
}

TEST_F(PartialFileTest, TakesTheLongestNames) {
  const std::string name(255, 'n');
  CPartialFile file(folder_.Path(name));
  Write(file, "x");
  file.Commit();
  EXPECT_TRUE(std::filesystem::exists(folder_.Path(name)));
}

TEST_F(PartialFileTest, SaysWhereItCannotBe) {
  EXPECT_EQ(ExitCodeOf(folder_.Path("no-such-folder/file")), kExitNotFound);
  folder_.Write("file", "");
  EXPECT_EQ(ExitCodeOf(folder_.Path("file/below")), kExitNotFound);
}

// Ends the writing for the whole process, so it happens in one of its own.
TEST(PartialFileDeathTest, RemovesWhatIsHalfWritten) {
  Tests::CTempFolder folder;
  EXPECT_EXIT(
      {
        CPartialFile file(folder.Path("target"));
        CPartialFile other(folder.Path("other"));
        other.Commit();
        CPartialFile::RemoveAll();
        bool refused = false;
        try {
          file.Commit();
        } catch (const CFailure& failure) {
          refused = failure.GetExitCode() == kExitInterrupted;
        }
        std::_Exit(refused && folder.Count() == 1 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Tansy::Cli
