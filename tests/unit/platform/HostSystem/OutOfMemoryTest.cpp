// Each allocation of each operation fails once: the operation may fail, and no file may stay open.
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "HostSystem/Files.h"
#include "HostSystem/LockFile.h"
#include "fakes/FailingAllocation.h"
#include "fakes/TempFolder.h"

namespace HostSystem {
namespace {

using Tansy::Tests::FailEachAllocation;

class FilesOutOfMemory : public testing::Test {
 protected:
  void SetUp() override {
    folder_.Write(kFile, "content");
    int error = 0;
    opened_ = OpenFolder(folder_.GetPath(), error);
    ASSERT_NE(opened_, nullptr);
  }

  static std::size_t CountOpenFiles() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }

  template <typename Action>
  void ExpectNoFileLeftOpen(Action action) {
    const std::size_t before = CountOpenFiles();
    FailEachAllocation(
        action, [&](std::size_t number, bool) { EXPECT_EQ(CountOpenFiles(), before) << "allocation " << number; });
  }

  static constexpr const char* kFolder = "a folder with a long name";
  static constexpr const char* kFile = "a folder with a long name/a file with a long name";
  const Tansy::Tests::CTempFolder folder_;
  std::unique_ptr<IFolder> opened_;
};

TEST_F(FilesOutOfMemory, OpeningAFile) {
  ExpectNoFileLeftOpen([this] {
    std::unique_ptr<IFile> file;
    opened_->OpenForReading(kFile, file);
  });
}

TEST_F(FilesOutOfMemory, OpeningAFolder) {
  ExpectNoFileLeftOpen([this] {
    std::unique_ptr<IFolder> folder;
    opened_->OpenFolder(kFolder, folder);
  });
  ExpectNoFileLeftOpen([this] {
    int error = 0;
    OpenFolder(folder_.GetPath(), error);
  });
}

TEST_F(FilesOutOfMemory, ListingAndRemoving) {
  ExpectNoFileLeftOpen([this] {
    std::vector<FolderEntry> entries;
    opened_->List(entries);
  });
  ExpectNoFileLeftOpen([this] { opened_->Remove(std::string(kFile) + " that is missing"); });
}

TEST_F(FilesOutOfMemory, ReadingAndReplacingWholeFiles) {
  const std::string path = folder_.Path("a whole file with a long name");
  ExpectNoFileLeftOpen([&] { ReplaceFile(path, "content that is longer than a short text"); });
  ExpectNoFileLeftOpen([&] {
    std::string content;
    ReadWholeFile(path, 1000, content);
  });
}

}  // namespace
}  // namespace HostSystem
