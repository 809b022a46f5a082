#include "StorageServer/ObjectServer/ObjectServerFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "TansyBase/FileUtil.h"
#include "fakes/CapturingLogSink.h"
#include "fakes/TempFolder.h"

namespace Tansy::Tests {
namespace {

using CloudStorage::details::CreateFloder;
using CloudStorage::details::ReadFile;
using CloudStorage::details::SaveFile;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

constexpr const char* kFolderFailed = "[%s]CreateFloder failed[%s], full path[%s], index[%d], error[%d].[%s(%d)]";
constexpr const char* kCreateFailed = "[%s]create file failed[%s], error[%d].[%s(%d)]";
constexpr const char* kWriteFailed = "[%s]write file failed[%s], error[%d].[%s(%d)]";

// Works in a folder of its own, because absolute paths do not work.
class CObjectServerFilesTest : public ::testing::Test {
 protected:
  CObjectServerFilesTest() : before_(fs::current_path()) { fs::current_path(folder_.GetPath()); }
  ~CObjectServerFilesTest() override { fs::current_path(before_); }

  fs::path before_;
  CTempFolder folder_;
  CLogCapture log_;
};

TEST_F(CObjectServerFilesTest, MakesEveryFolderButTheLastComponent) {
  EXPECT_TRUE(CreateFloder("./one\\two/three\\file"));
  EXPECT_TRUE(fs::is_directory("one/two/three"));
  EXPECT_FALSE(fs::exists("one/two/three/file"));
  EXPECT_TRUE(CreateFloder("./one\\two/three\\file"));
  EXPECT_TRUE(CreateFloder("file"));
  EXPECT_FALSE(fs::exists("file"));
  EXPECT_TRUE(CreateFloder(""));
}

TEST_F(CObjectServerFilesTest, AnAbsolutePathFailsAtItsEmptyPrefix) {
  EXPECT_FALSE(CreateFloder("/tmp/file"));
  EXPECT_EQ(log_->Count(kFolderFailed, logging::kError), 1u);
  EXPECT_THAT(log_->Text(kFolderFailed), HasSubstr("CreateFloder failed[], full path[/tmp/file], index[0], error[" +
                                                   std::to_string(ENOENT) + "]"));
  EXPECT_FALSE(SaveFile("/tmp/file", "x", 1, "wb"));
  EXPECT_EQ(log_->Count(kCreateFailed), 0u);
}

TEST_F(CObjectServerFilesTest, AFileInTheWayOfAFolder) {
  std::ofstream("plain") << "x";
  EXPECT_FALSE(CreateFloder("plain/below/file"));
  EXPECT_THAT(log_->Text(kFolderFailed), HasSubstr("CreateFloder failed[plain/below], full path[plain/below/file], "
                                                   "index[11], error[" +
                                                   std::to_string(ENOTDIR) + "]"));
}

TEST_F(CObjectServerFilesTest, ManyThreadsMakeTheSameFolder) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([i] {
      for (int round = 0; round < 50; ++round) {
        const std::string path = "./shared" + std::to_string(round) + "\\file" + std::to_string(i);
        EXPECT_TRUE(SaveFile(path, "bytes", 5, "wb"));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST_F(CObjectServerFilesTest, SavesAndReadsBack) {
  const std::string bytes("one\0two", 7);
  EXPECT_TRUE(SaveFile("./folder\\file", bytes.data(), bytes.size(), "wb"));
  EXPECT_EQ(Tests::ReadFile("folder/file"), bytes);
  EXPECT_TRUE(SaveFile("./folder\\file", "x", 1, "wb"));
  EXPECT_EQ(Tests::ReadFile("folder/file"), "x");
  EXPECT_TRUE(SaveFile("./folder\\file", "y", 1, "ab"));
  EXPECT_EQ(Tests::ReadFile("folder/file"), "xy");
  EXPECT_TRUE(SaveFile("./folder\\empty", "", 0, "wb"));

  EXPECT_STREQ(ReadFile("./folder\\file", 2).get(), "xy");
  EXPECT_STREQ(ReadFile("./folder\\file", 1).get(), "x");
  EXPECT_EQ(ReadFile("./folder\\file", 3), nullptr);
  EXPECT_EQ(ReadFile("./folder\\file", 0), nullptr);
  EXPECT_EQ(ReadFile("./folder\\empty", 1), nullptr);
  EXPECT_EQ(ReadFile("./folder\\missing", 1), nullptr);
  EXPECT_EQ(ReadFile("", 1), nullptr);
}

TEST_F(CObjectServerFilesTest, AFileThatCannotBeMade) {
  fs::create_directories("folder/file");
  EXPECT_FALSE(SaveFile("./folder\\file", "x", 1, "wb"));
  EXPECT_THAT(log_->Text(kCreateFailed),
              HasSubstr("create file failed[./folder\\file], error[" + std::to_string(EISDIR) + "]"));
}

TEST_F(CObjectServerFilesTest, AFullDisk) {
  if (!fs::exists("/dev/full")) {
    GTEST_SKIP() << "no /dev/full here";
  }
  fs::create_symlink("/dev/full", "full");
  // The first size stays in the buffer until the file is closed; the second is too big for that.
  for (const std::size_t size : {std::size_t{1}, std::size_t{1} << 20}) {
    log_->Clear();
    const std::string bytes(size, 'x');
    EXPECT_FALSE(SaveFile("full", bytes.data(), bytes.size(), "wb"));
    EXPECT_EQ(log_->Count(kWriteFailed, logging::kError), 1u) << size;
    EXPECT_THAT(log_->Text(kWriteFailed), HasSubstr("write file failed[full], error[" + std::to_string(ENOSPC) + "]"));
  }
}

}  // namespace
}  // namespace Tansy::Tests
