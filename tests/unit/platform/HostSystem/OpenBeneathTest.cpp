#include "HostSystem/posix/OpenBeneath.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "fakes/TempFolder.h"

namespace HostSystem::details {
namespace {

// Both ways to open must agree: the one system call, and the walk for systems without it.
class OpenBeneathTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    folder_ = ::open(temp_.GetPath().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(folder_, 0);
  }
  void TearDown() override { ::close(folder_); }

  int Open(const std::string& name, int flags) {
    int descriptor = -1;
    const int error = GetParam() ? OpenBeneath(folder_, name, flags, 0600, descriptor)
                                 : WalkBeneath(folder_, name, flags, 0600, descriptor);
    if (error == 0) {
      ::close(descriptor);
    }
    return error;
  }

  Tansy::Tests::CTempFolder temp_;
  int folder_ = -1;
};

TEST_P(OpenBeneathTest, OpensDeepNames) {
  temp_.Write("a/b/c/file", "x");
  EXPECT_EQ(Open("a/b/c/file", O_RDONLY), 0);
  EXPECT_EQ(Open("a/b/c", O_RDONLY | O_DIRECTORY), 0);
  EXPECT_EQ(Open("a/b/c/new", O_RDWR | O_CREAT | O_EXCL), 0);
  EXPECT_TRUE(temp_.Exists("a/b/c/new"));
}

TEST_P(OpenBeneathTest, SaysWhatIsMissing) {
  temp_.Write("file", "x");
  EXPECT_EQ(Open("none", O_RDONLY), ENOENT);
  EXPECT_EQ(Open("none/file", O_RDONLY), ENOENT);
  EXPECT_EQ(Open("file/below", O_RDONLY), ENOTDIR);
}

TEST_P(OpenBeneathTest, RefusesLinksInEveryPlace) {
  temp_.Write("real/sub/file", "x");
  std::filesystem::create_symlink("real", temp_.Path("link"));
  std::filesystem::create_symlink("sub", temp_.Path("real/link"));
  std::filesystem::create_symlink("file", temp_.Path("real/sub/link"));
  EXPECT_EQ(Open("real/sub/file", O_RDONLY), 0);
  EXPECT_NE(Open("link/sub/file", O_RDONLY), 0);
  EXPECT_NE(Open("real/link/file", O_RDONLY), 0);
  EXPECT_NE(Open("real/sub/link", O_RDONLY), 0);
}

INSTANTIATE_TEST_SUITE_P(OneCallAndWalk, OpenBeneathTest, testing::Bool());

TEST(IsPlainNameTest, TakesOnePartOfAName) {
  EXPECT_TRUE(IsPlainName("a"));
  EXPECT_TRUE(IsPlainName("..."));
  EXPECT_FALSE(IsPlainName(""));
  EXPECT_FALSE(IsPlainName("."));
  EXPECT_FALSE(IsPlainName(".."));
  EXPECT_FALSE(IsPlainName("a/b"));
  EXPECT_FALSE(IsPlainName(std::string("a\0b", 3)));
}

}  // namespace
}  // namespace HostSystem::details
