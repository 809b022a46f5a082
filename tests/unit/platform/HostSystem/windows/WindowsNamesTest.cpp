#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "HostSystem/Files.h"
#include "fakes/TempFolder.h"

namespace HostSystem {
namespace {

class WindowsNamesTest : public testing::Test {
 protected:
  int Create(const std::string& name) {
    int error = 0;
    const std::unique_ptr<IFolder> folder = OpenFolder(temp_.GetPath(), error);
    std::unique_ptr<IFile> file;
    return folder->Create(name, file);
  }

  Tansy::Tests::CTempFolder temp_;
};

TEST_F(WindowsNamesTest, NamesOfDevicesAreInvalid) {
  for (const char* name : {"CON", "nul", "Aux.txt", "COM1", "lpt9.tar.gz", "nul .txt", "COM\xC2\xB2", "conin$"}) {
    EXPECT_EQ(Create(name), EINVAL) << name;
  }
  for (const char* name : {"CONSOLE", "nulls", "COM", "COM0", "com10", "xcon", "file.con"}) {
    EXPECT_EQ(Create(name), 0) << name;
  }
}

TEST_F(WindowsNamesTest, NamesThatWouldBeThoseOfOtherFilesAreInvalid) {
  temp_.Write("file", "kept");
  for (const char* name : {"file.", "file..", "file ", "file:stream", "file::$DATA", "...", "fi\tle", "f*le", "f?le"}) {
    EXPECT_EQ(Create(name), EINVAL) << name;
  }
  EXPECT_EQ(temp_.Read("file"), "kept");
  EXPECT_EQ(temp_.Count(), 1U);
}

TEST_F(WindowsNamesTest, AFileIsFoundInAnyCase) {
  EXPECT_EQ(Create("File"), 0);
  EXPECT_EQ(Create("fILE"), EEXIST);
}

TEST_F(WindowsNamesTest, ANewFileMayBeNamedWithoutAFolder) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(temp_.GetPath());
  EXPECT_EQ(ReplaceFile("new", "first"), 0);
  EXPECT_EQ(ReplaceFile("new", "second"), 0);
  std::filesystem::current_path(before);
  EXPECT_EQ(temp_.Read("new"), "second");
}

TEST_F(WindowsNamesTest, NamesBeyondTheCodePageWork) {
  EXPECT_EQ(Create("gr\xC3\xBC\xC3\x9F \xE4\xB8\xAD \xF0\x9F\x8C\xBC"), 0);
  EXPECT_EQ(Create("gr\xC3\xBC\xC3\x9F \xE4\xB8\xAD \xF0\x9F\x8C\xBC"), EEXIST);
  EXPECT_EQ(temp_.Count(), 1U);
}

}  // namespace
}  // namespace HostSystem
