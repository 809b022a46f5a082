#include "TansyBase/FileUtil.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#ifndef _WIN32
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace TansyBase {
namespace {

constexpr std::uint32_t kPathNotFound = 3;
constexpr std::uint32_t kTooManyOpenFiles = 4;
constexpr std::uint32_t kAccessDenied = 5;
constexpr std::uint32_t kInvalidHandle = 6;
constexpr std::uint32_t kSharingViolation = 32;
constexpr std::uint32_t kInvalidName = 123;
constexpr std::uint32_t kNameTooLong = 206;

// A folder of the test's own.
class Files : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ =
        std::filesystem::path(::testing::TempDir()) /
        ("files-" + std::to_string(getpid()) + "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(folder_);
    std::filesystem::create_directories(folder_);
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string Path(const std::string& name) const { return (folder_ / name).string(); }
  static void Put(const std::string& path, const std::string& contents) { std::ofstream(path) << contents; }
  static std::string Get(const std::string& path) {
    std::ostringstream all;
    all << std::ifstream(path, std::ios::binary).rdbuf();
    return all.str();
  }

  std::filesystem::path folder_;
};

using FileUtilTest = Files;
using LocalFileTest = Files;

TEST_F(FileUtilTest, TheFolderOfTheProgramEndsWithASeparator) {
  EXPECT_EQ(FileUtil::GetCurExeDirUtf8(), "./");
}

TEST_F(FileUtilTest, AHostNamesAnotherFolderThanThatOfTheProgram) {
  const std::string before = FileUtil::GetCurExeDirUtf8();
  FileUtil::SetCurExeDirUtf8("data/");
  EXPECT_EQ(FileUtil::GetCurExeDirUtf8(), "data/");
  FileUtil::SetCurExeDirUtf8("");
  EXPECT_EQ(FileUtil::GetCurExeDirUtf8(), before);
}

TEST_F(FileUtilTest, ExistsFilesAndFolders) {
  Put(Path("file"), "x");
  EXPECT_TRUE(FileUtil::Exists(Path("file")));
  EXPECT_TRUE(FileUtil::Exists(folder_.string()));
  EXPECT_FALSE(FileUtil::Exists(Path("missing")));
  EXPECT_FALSE(FileUtil::Exists(""));
}

TEST_F(FileUtilTest, EnsuresOneFolder) {
  EXPECT_EQ(FileUtil::EnsureDirectory(Path("new")), 0);
  EXPECT_TRUE(std::filesystem::is_directory(Path("new")));
  EXPECT_EQ(FileUtil::EnsureDirectory(Path("new")), 0);
  EXPECT_EQ(FileUtil::EnsureDirectory(Path("a/b")), ENOENT);
  EXPECT_EQ(FileUtil::EnsureDirectory(""), ENOENT);
}

TEST_F(FileUtilTest, MakesOneFolder) {
  EXPECT_EQ(FileUtil::MakeDirectory(Path("new")), 0);
  EXPECT_TRUE(std::filesystem::is_directory(Path("new")));
  EXPECT_EQ(FileUtil::MakeDirectory(Path("new")), EEXIST);
  EXPECT_EQ(FileUtil::MakeDirectory(Path("a/b")), ENOENT);
  EXPECT_EQ(FileUtil::MakeDirectory(""), ENOENT);
}

TEST_F(FileUtilTest, EnsuresThatAFileIsRemoved) {
  Put(Path("file"), "x");
  EXPECT_EQ(FileUtil::EnsureRemoved(Path("file")), 0);
  EXPECT_FALSE(FileUtil::Exists(Path("file")));
  EXPECT_EQ(FileUtil::EnsureRemoved(Path("file")), 0);
  EXPECT_EQ(FileUtil::EnsureRemoved(Path("a/b")), 0);
  std::filesystem::create_directory(Path("folder"));
  EXPECT_NE(FileUtil::EnsureRemoved(Path("folder")), 0);
  EXPECT_TRUE(FileUtil::Exists(Path("folder")));
}

TEST_F(FileUtilTest, RemovesAFileAndNoFolder) {
  Put(Path("file"), "x");
  EXPECT_EQ(FileUtil::RemoveFile(Path("file")), 0);
  EXPECT_FALSE(FileUtil::Exists(Path("file")));
  EXPECT_EQ(FileUtil::RemoveFile(Path("file")), ENOENT);
  std::filesystem::create_directory(Path("folder"));
  EXPECT_NE(FileUtil::RemoveFile(Path("folder")), 0);
  EXPECT_TRUE(FileUtil::Exists(Path("folder")));
}

TEST_F(FileUtilTest, PutsAFileInThePlaceOfAnother) {
  Put(Path("new"), "new bytes");
  EXPECT_EQ(FileUtil::MoveOver(Path("new"), Path("place")), 0);
  EXPECT_EQ(Get(Path("place")), "new bytes");
  EXPECT_FALSE(FileUtil::Exists(Path("new")));
  Put(Path("newer"), "newer");
  EXPECT_EQ(FileUtil::MoveOver(Path("newer"), Path("place")), 0);
  EXPECT_EQ(Get(Path("place")), "newer");

  EXPECT_EQ(FileUtil::MoveOver(Path("missing"), Path("place")), ENOENT);
  std::filesystem::create_directories(Path("folder") + "/sub");
  EXPECT_NE(FileUtil::MoveOver(Path("place"), Path("folder")), 0);
  EXPECT_EQ(Get(Path("place")), "newer");
}

TEST_F(FileUtilTest, AFlushWritesWhatWasBuffered) {
  std::FILE* file = FileUtil::OpenFile(Path("file"), "wb");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(std::fwrite("bytes", 1, 5, file), 5U);
  EXPECT_EQ(FileUtil::Flush(file), 0);
  EXPECT_EQ(Get(Path("file")), "bytes");
  EXPECT_EQ(std::fclose(file), 0);
#ifndef _WIN32
  file = FileUtil::OpenFile("/dev/full", "wb");
  if (file != nullptr) {
    EXPECT_EQ(std::fwrite("bytes", 1, 5, file), 5U);
    EXPECT_EQ(FileUtil::Flush(file), ENOSPC);
    std::fclose(file);
  }
#endif
}

TEST_F(FileUtilTest, BackslashesAreSeparators) {
  const std::string backslashed = folder_.string() + "\\sub";
  EXPECT_EQ(FileUtil::MakeDirectory(backslashed), 0);
  EXPECT_TRUE(std::filesystem::is_directory(Path("sub")));
  Put(Path("sub/file"), "x");
  EXPECT_TRUE(FileUtil::Exists(backslashed + "\\file"));
  EXPECT_EQ(FileUtil::RemoveFile(backslashed + "\\file"), 0);
}

TEST_F(FileUtilTest, OpensFilesThatNoChildInherits) {
  std::FILE* file = FileUtil::OpenFile(folder_.string() + "\\new", "wb");
  ASSERT_NE(file, nullptr);
  EXPECT_NE(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC, 0);
  std::fclose(file);
  EXPECT_TRUE(FileUtil::Exists(Path("new")));
  errno = 0;
  EXPECT_EQ(FileUtil::OpenFile(Path("missing"), "rb"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(FileUtil::OpenFile(Path("new") + std::string("\0x", 2), "rb"), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileUtilTest, AnEmbeddedNulNamesNoFile) {
  Put(Path("file"), "x");
  const std::string tricky = Path("file") + std::string("\0.txt", 5);
  EXPECT_FALSE(FileUtil::Exists(tricky));
  EXPECT_EQ(FileUtil::RemoveFile(tricky), ENOENT);
  EXPECT_EQ(FileUtil::MakeDirectory(Path("folder") + std::string("\0x", 2)), ENOENT);
  EXPECT_TRUE(FileUtil::Exists(Path("file")));
}

TEST_F(LocalFileTest, MakesAMissingFileAndWritesAndReadsIt) {
  CLocalFile file;
  EXPECT_FALSE(file.IsOpen());
  ASSERT_EQ(file.OpenAlways(Path("new")), 0u);
  EXPECT_TRUE(file.IsOpen());
  std::uint32_t done = 0;
  EXPECT_EQ(file.Write("hello world", 11, done), 0u);
  EXPECT_EQ(done, 11u);
  file.Close();
  EXPECT_FALSE(file.IsOpen());

  ASSERT_EQ(file.OpenAlways(Path("new")), 0u);
  char buffer[32] = {};
  EXPECT_EQ(file.Read(buffer, 5, done), 0u);
  EXPECT_EQ(std::string(buffer, done), "hello");
  EXPECT_EQ(file.Read(buffer, sizeof buffer, done), 0u);
  EXPECT_EQ(std::string(buffer, done), " world");
  EXPECT_EQ(file.Read(buffer, sizeof buffer, done), 0u);
  EXPECT_EQ(done, 0u);
  file.Close();
}

TEST_F(LocalFileTest, AnExistingFileIsKeptAndOverwrittenFromItsStart) {
  Put(Path("old"), "0123456789");
  CLocalFile file;
  ASSERT_EQ(file.OpenAlways(Path("old")), 0u);
  std::uint32_t size = 0;
  EXPECT_EQ(file.GetSize(size), 0u);
  EXPECT_EQ(size, 10u);
  std::uint32_t done = 0;
  EXPECT_EQ(file.Write("abc", 3, done), 0u);
  file.Close();
  EXPECT_EQ(Get(Path("old")), "abc3456789");
}

TEST_F(LocalFileTest, ASecondOpenOfTheSameFileIsASharingViolation) {
  CLocalFile first;
  CLocalFile second;
  ASSERT_EQ(first.OpenAlways(Path("shared")), 0u);
  EXPECT_EQ(second.OpenAlways(Path("shared")), kSharingViolation);
  EXPECT_FALSE(second.IsOpen());
  std::filesystem::create_hard_link(Path("shared"), Path("link"));
  EXPECT_EQ(second.OpenAlways(Path("link")), kSharingViolation);
  first.Close();
  EXPECT_EQ(second.OpenAlways(Path("shared")), 0u);
  second.Close();
}

TEST_F(LocalFileTest, OpeningAgainClosesWhatWasOpen) {
  CLocalFile first;
  CLocalFile second;
  ASSERT_EQ(first.OpenAlways(Path("one")), 0u);
  ASSERT_EQ(first.OpenAlways(Path("two")), 0u);
  EXPECT_EQ(second.OpenAlways(Path("one")), 0u);
  first.Close();
  second.Close();
}

TEST_F(LocalFileTest, TheDestructorLeavesTheFileOpen) {
  { ASSERT_EQ(std::make_unique<CLocalFile>()->OpenAlways(Path("kept")), 0u); }
  CLocalFile other;
  EXPECT_EQ(other.OpenAlways(Path("kept")), kSharingViolation);
}

TEST_F(LocalFileTest, ErrorsAreThoseOfTheOtherSystem) {
  CLocalFile file;
  EXPECT_EQ(file.OpenAlways(""), kPathNotFound);
  EXPECT_EQ(file.OpenAlways(Path("missing/file")), kPathNotFound);
  Put(Path("plain"), "x");
  EXPECT_EQ(file.OpenAlways(Path("plain/file")), kPathNotFound);
  EXPECT_EQ(file.OpenAlways(folder_.string()), kAccessDenied);
  EXPECT_EQ(file.OpenAlways(Path(std::string(300, 'x'))), kNameTooLong);
  EXPECT_EQ(file.OpenAlways(Path("a") + std::string("\0b", 2)), kInvalidName);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(FileUtil::Exists(Path("a")));
}

TEST_F(LocalFileTest, AClosedFileAnswersInvalidHandle) {
  CLocalFile file;
  std::uint32_t number = 7;
  char byte = 0;
  EXPECT_EQ(file.GetSize(number), kInvalidHandle);
  EXPECT_EQ(file.Read(&byte, 1, number), kInvalidHandle);
  EXPECT_EQ(number, 0u);
  EXPECT_EQ(file.Write(&byte, 1, number), kInvalidHandle);
  file.Close();
}

TEST_F(LocalFileTest, BackslashesAndUtf8NamesWork) {
  std::filesystem::create_directory(Path("sub"));
  CLocalFile file;
  ASSERT_EQ(file.OpenAlways(folder_.string() + "\\sub\\gr\xC3\xBC\xC3\x9F \xE4\xB8\xAD.bin"), 0u);
  file.Close();
  EXPECT_TRUE(std::filesystem::exists(Path("sub/gr\xC3\xBC\xC3\x9F \xE4\xB8\xAD.bin")));
}

#ifndef _WIN32

TEST_F(LocalFileTest, AFileWithoutPermissionIsAccessDenied) {
  constexpr uid_t kNobody = 65534;
  Put(Path("locked"), "x");
  std::filesystem::permissions(Path("locked"), std::filesystem::perms::none);
  // The superuser may open any file, so the test is somebody else for a moment.
  const uid_t before = geteuid();
  ASSERT_TRUE(before != 0 || seteuid(kNobody) == 0);
  CLocalFile file;
  const std::uint32_t error = file.OpenAlways(Path("locked"));
  ASSERT_EQ(seteuid(before), 0);
  EXPECT_EQ(error, kAccessDenied);
}

TEST_F(LocalFileTest, WhatIsNoRegularFileIsAccessDenied) {
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  CLocalFile file;
  EXPECT_EQ(file.OpenAlways(Path("fifo")), kAccessDenied);
  EXPECT_EQ(file.OpenAlways("/dev/null"), kAccessDenied);
}

TEST_F(LocalFileTest, AnotherProcessIsKeptOut) {
  CLocalFile file;
  ASSERT_EQ(file.OpenAlways(Path("mine")), 0u);
  // A process of its own, without this one's table of open files.
  const std::string command = "flock -n -E 32 '" + Path("mine") + "' true";
  EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 32);
  file.Close();
  EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 0);
}

TEST_F(LocalFileTest, AFileThatAnotherProcessHoldsIsASharingViolation) {
  int ready[2];
  int done[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(done), 0);
  const pid_t child = fork();
  if (child == 0) {
    CLocalFile theirs;
    const char result = theirs.OpenAlways(Path("theirs")) == 0 ? 'y' : 'n';
    char go = 0;
    const bool told = write(ready[1], &result, 1) == 1 && read(done[0], &go, 1) == 1;
    _exit(told ? 0 : 1);
  }
  char result = 0;
  ASSERT_EQ(read(ready[0], &result, 1), 1);
  ASSERT_EQ(result, 'y');
  CLocalFile file;
  EXPECT_EQ(file.OpenAlways(Path("theirs")), kSharingViolation);
  ASSERT_EQ(write(done[1], "x", 1), 1);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(file.OpenAlways(Path("theirs")), 0u);  // the file is free once its process is gone
  file.Close();
  for (const int end : {ready[0], ready[1], done[0], done[1]}) {
    close(end);
  }
}

TEST_F(LocalFileTest, TooManyOpenFiles) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit low = before;
  low.rlim_cur = 3;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  CLocalFile file;
  const std::uint32_t error = file.OpenAlways(Path("x"));
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(error, kTooManyOpenFiles);
}

TEST_F(LocalFileTest, AFileThatMayNotGrowTellsHowMuchWasWritten) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit low = before;
  low.rlim_cur = 1000;
  CLocalFile file;
  ASSERT_EQ(file.OpenAlways(Path("big")), 0u);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &low), 0);
  const std::string data(1500, 'x');
  std::uint32_t done = 0;
  const std::uint32_t error = file.Write(data.data(), 1500, done);
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(error, 223u);
  EXPECT_EQ(done, 1000u);
  file.Close();
}

TEST_F(LocalFileTest, TheSizeOfAHugeFileIsItsLow32Bits) {
  Put(Path("huge"), "");
  std::filesystem::resize_file(Path("huge"), (std::uintmax_t{1} << 32) + 5);
  CLocalFile file;
  ASSERT_EQ(file.OpenAlways(Path("huge")), 0u);
  std::uint32_t size = 0;
  EXPECT_EQ(file.GetSize(size), 0u);
  EXPECT_EQ(size, 5u);
  std::uint32_t high = 0;
  EXPECT_EQ(file.GetSize(size, &high), 0u);
  EXPECT_EQ(size, 5u);
  EXPECT_EQ(high, 1u);
  file.Close();
}

#endif  // _WIN32

}  // namespace
}  // namespace TansyBase
