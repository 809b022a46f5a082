#include "HostSystem/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "fakes/RandomBytes.h"
#include "fakes/TempFolder.h"

namespace HostSystem {
namespace {

class FilesTest : public testing::Test {
 protected:
  void SetUp() override {
    int error = 0;
    folder_ = OpenFolder(temp_.GetPath(), error);
    ASSERT_NE(folder_, nullptr) << ErrorText(error);
  }

  std::string ReadBack(const std::string& name) {
    std::unique_ptr<IFile> file;
    EXPECT_EQ(folder_->OpenForReading(name, file), 0);
    std::string bytes(1000, '#');
    std::size_t done = 0;
    EXPECT_EQ(file->ReadAt(bytes.data(), bytes.size(), 0, done), 0);
    return bytes.substr(0, done);
  }

  Tansy::Tests::CTempFolder temp_;
  std::unique_ptr<IFolder> folder_;
};

TEST_F(FilesTest, WritesAtOffsetsAndReadsBackWithHolesAsZeros) {
  std::unique_ptr<IFile> file;
  ASSERT_EQ(folder_->Create("a", file), 0);
  EXPECT_EQ(file->WriteAt("world", 5, 8), 0);
  EXPECT_EQ(file->WriteAt("hello", 5, 0), 0);
  EXPECT_EQ(file->Sync(), 0);
  std::uint64_t size = 0;
  EXPECT_EQ(file->GetSize(size), 0);
  EXPECT_EQ(size, 13U);
  EXPECT_EQ(ReadBack("a"), std::string("hello\0\0\0world", 13));
}

TEST_F(FilesTest, AFileGetsASecondName) {
  std::unique_ptr<IFile> file;
  ASSERT_EQ(folder_->MakeFolder("sub"), 0);
  ASSERT_EQ(folder_->Create("a", file), 0);
  EXPECT_EQ(file->WriteAt("hello", 5, 0), 0);
  EXPECT_EQ(folder_->Link("a", "sub/b"), 0);
  EXPECT_EQ(folder_->Link("sub/b", "c"), 0);
  EXPECT_EQ(folder_->Link("a", "c"), EEXIST);
  EXPECT_EQ(folder_->Link("none", "d"), ENOENT);
  EXPECT_EQ(folder_->Link("../a", "d"), EINVAL);
  EXPECT_EQ(folder_->Remove("a"), 0);
  EXPECT_EQ(ReadBack("sub/b"), "hello");
  EXPECT_EQ(ReadBack("c"), "hello");
}

// More than goes to the system in one call.
TEST_F(FilesTest, WritesManyBytesInOneCall) {
  const std::string bytes = Tansy::Tests::RandomBytes(1000003, 7);
  std::unique_ptr<IFile> file;
  ASSERT_EQ(folder_->Create("a", file), 0);
  EXPECT_EQ(file->WriteAt(bytes.data(), bytes.size(), 5), 0);
  std::string back(bytes.size() + 10, '#');
  std::size_t done = 0;
  EXPECT_EQ(file->ReadAt(back.data(), back.size(), 0, done), 0);
  EXPECT_TRUE(back.substr(0, done) == std::string(5, '\0') + bytes);
}

TEST_F(FilesTest, ReadsBeyondTheEndDeliverLess) {
  temp_.Write("a", "12345");
  std::unique_ptr<IFile> file;
  ASSERT_EQ(folder_->OpenForReading("a", file), 0);
  char bytes[10];
  std::size_t done = 99;
  EXPECT_EQ(file->ReadAt(bytes, 10, 3, done), 0);
  EXPECT_EQ(done, 2U);
  EXPECT_EQ(file->ReadAt(bytes, 10, 1000, done), 0);
  EXPECT_EQ(done, 0U);
}

TEST_F(FilesTest, ReadsExactlyOrSaysThatTheFileEnds) {
  temp_.Write("a", "12345");
  std::unique_ptr<IFile> file;
  ASSERT_EQ(folder_->OpenForReading("a", file), 0);
  std::string bytes = "before";
  EXPECT_EQ(ReadExactly(*file, 1, 4, bytes), 0);
  EXPECT_EQ(bytes, "2345");
  EXPECT_EQ(ReadExactly(*file, 5, 0, bytes), 0);
  EXPECT_EQ(bytes, "");
  EXPECT_EQ(ReadExactly(*file, 2, 4, bytes), EIO);
  EXPECT_EQ(ReadExactly(*file, 6, 1, bytes), EIO);
}

TEST_F(FilesTest, NewFilesAndFoldersAreForTheirOwnerOnly) {
  std::unique_ptr<IFile> file;
  ASSERT_EQ(folder_->Create("a", file), 0);
  ASSERT_EQ(folder_->MakeFolder("f"), 0);
  struct stat info = {};
  ASSERT_EQ(::stat(temp_.Path("a").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);
  ASSERT_EQ(::stat(temp_.Path("f").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700U);
}

TEST_F(FilesTest, CreateRefusesAnExistingFile) {
  temp_.Write("a", "kept");
  std::unique_ptr<IFile> file;
  EXPECT_EQ(folder_->Create("a", file), EEXIST);
  EXPECT_EQ(temp_.Read("a"), "kept");
}

TEST_F(FilesTest, NamesThatLeaveTheFolderAreInvalid) {
  temp_.Write("inside/a", "x");
  std::unique_ptr<IFile> file;
  for (const std::string& name :
       {std::string("../a"), std::string("/etc/passwd"), std::string("inside/../inside/a"), std::string("./inside/a"),
        std::string("inside//a"), std::string("inside/a/"), std::string(""), std::string("."), std::string(".."),
        std::string("inside/a\0b", 10)}) {
    EXPECT_EQ(folder_->OpenForReading(name, file), EINVAL) << name;
    EXPECT_EQ(folder_->Remove(name), EINVAL) << name;
    EXPECT_EQ(folder_->MakeFolder(name), EINVAL) << name;
  }
}

TEST_F(FilesTest, LinksAreNotFollowedAnywhereOnTheWay) {
  Tansy::Tests::CTempFolder outside;
  outside.Write("deep/secret", "secret");
  std::filesystem::create_symlink(outside.Path("deep/secret"), temp_.Path("file-link"));
  std::filesystem::create_symlink(outside.Path("deep"), temp_.Path("folder-link"));
  std::unique_ptr<IFile> file;
  EXPECT_NE(folder_->OpenForReading("file-link", file), 0);
  EXPECT_NE(folder_->OpenForWriting("file-link", file), 0);
  EXPECT_NE(folder_->OpenForReading("folder-link/secret", file), 0);
  EXPECT_NE(folder_->Create("folder-link/new", file), 0);
  EXPECT_NE(folder_->Remove("folder-link/secret"), 0);
  EXPECT_EQ(outside.Read("deep/secret"), "secret");
  EXPECT_FALSE(outside.Exists("deep/new"));
}

TEST_F(FilesTest, TheFolderItselfMayBeALink) {
  Tansy::Tests::CTempFolder other;
  std::filesystem::create_symlink(temp_.GetPath(), other.Path("link"));
  temp_.Write("a", "x");
  int error = 0;
  const std::unique_ptr<IFolder> folder = OpenFolder(other.Path("link"), error);
  ASSERT_NE(folder, nullptr);
  std::unique_ptr<IFile> file;
  EXPECT_EQ(folder->OpenForReading("a", file), 0);
}

TEST_F(FilesTest, RenameReplacesAndRemoveRemoves) {
  temp_.Write("a", "new");
  temp_.Write("b", "old");
  EXPECT_EQ(folder_->Rename("a", "b"), 0);
  EXPECT_EQ(temp_.Read("b"), "new");
  EXPECT_EQ(folder_->Remove("b"), 0);
  EXPECT_EQ(folder_->Remove("b"), ENOENT);
}

TEST_F(FilesTest, ListTellsFilesFromFoldersFromLinks) {
  temp_.Write("file", "12345");
  ASSERT_EQ(folder_->MakeFolder("folder"), 0);
  std::filesystem::create_symlink("file", temp_.Path("link"));
  std::vector<FolderEntry> entries;
  ASSERT_EQ(folder_->List(entries), 0);
  ASSERT_EQ(folder_->List(entries), 0) << "a folder can be listed more than once";
  ASSERT_EQ(entries.size(), 6U);
  for (const FolderEntry& entry : entries) {
    EXPECT_EQ(entry.is_file, entry.name == "file") << entry.name;
    EXPECT_EQ(entry.is_folder, entry.name == "folder") << entry.name;
    if (entry.is_file) {
      EXPECT_EQ(entry.size, 5U);
    }
  }
}

// 0 when a file that outgrows the limit says so. Runs in a process of its own: the limit cannot be raised again.
int WriteBeyondTheLimit(IFolder& folder) {
  std::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit = {4096, 4096};
  ::setrlimit(RLIMIT_FSIZE, &limit);
  std::unique_ptr<IFile> file;
  const bool created = folder.Create("a", file) == 0;
  const std::string bytes(10000, 'x');
  return created && file->WriteAt(bytes.data(), bytes.size(), 0) == EFBIG ? 0 : 1;
}

TEST_F(FilesTest, AWriteBeyondTheFileSizeLimitFails) {
  EXPECT_EXIT(::_exit(WriteBeyondTheLimit(*folder_)), testing::ExitedWithCode(0), "");
}

TEST_F(FilesTest, ReplaceFileLeavesOneWholeFileAndNothingElse) {
  EXPECT_EQ(ReplaceFile(temp_.Path("s"), "first"), 0);
  EXPECT_EQ(ReplaceFile(temp_.Path("s"), "second"), 0);
  EXPECT_EQ(temp_.Read("s"), "second");
  struct stat info = {};
  ASSERT_EQ(::stat(temp_.Path("s").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);
  std::vector<FolderEntry> entries;
  ASSERT_EQ(folder_->List(entries), 0);
  EXPECT_EQ(entries.size(), 1U);
}

TEST_F(FilesTest, ReplaceFileFollowsALinkToTheFileBehindIt) {
  temp_.Write("real", "old");
  std::filesystem::create_symlink("real", temp_.Path("link"));
  EXPECT_EQ(ReplaceFile(temp_.Path("link"), "new"), 0);
  EXPECT_TRUE(std::filesystem::is_symlink(temp_.Path("link")));
  EXPECT_EQ(temp_.Read("real"), "new");
}

TEST_F(FilesTest, ReplaceFileGoesOverTheRestOfACrash) {
  temp_.Write("s.new", "half a fi");
  EXPECT_EQ(ReplaceFile(temp_.Path("s"), "whole"), 0);
  EXPECT_EQ(temp_.Read("s"), "whole");
  EXPECT_FALSE(temp_.Exists("s.new"));
}

TEST_F(FilesTest, ReplaceFileInAMissingFolderFails) {
  EXPECT_EQ(ReplaceFile(temp_.Path("none/s"), "x"), ENOENT);
}

TEST_F(FilesTest, ReadWholeFileTakesMemoryForTheFileAndNotForTheLimit) {
  temp_.Write("s", std::string(200000, 'x'));
  std::string content;
  EXPECT_EQ(ReadWholeFile(temp_.Path("s"), std::size_t{1} << 60, content), 0);
  EXPECT_EQ(content, std::string(200000, 'x'));
}

TEST_F(FilesTest, ReadWholeFileHasALimit) {
  temp_.Write("s", "12345");
  std::string content;
  EXPECT_EQ(ReadWholeFile(temp_.Path("s"), 5, content), 0);
  EXPECT_EQ(content, "12345");
  EXPECT_EQ(ReadWholeFile(temp_.Path("s"), 4, content), EFBIG);
  EXPECT_EQ(ReadWholeFile(temp_.Path("none"), 4, content), ENOENT);
}

TEST_F(FilesTest, MakeFoldersMakesWhatIsMissingAndAcceptsWhatIsThere) {
  EXPECT_EQ(MakeFolders(temp_.Path("a/b/c")), 0);
  EXPECT_EQ(MakeFolders(temp_.Path("a/b/c")), 0);
  EXPECT_EQ(GetPathKind(temp_.Path("a/b/c")), EPathKind::kFolder);
  temp_.Write("file", "");
  EXPECT_EQ(MakeFolders(temp_.Path("file")), EEXIST);
  EXPECT_EQ(MakeFolders(temp_.Path("file/below")), ENOTDIR);
}

TEST_F(FilesTest, PathKindsAndPermissions) {
  temp_.Write("file", "");
  EXPECT_EQ(GetPathKind(temp_.Path("file")), EPathKind::kFile);
  EXPECT_EQ(GetPathKind(temp_.Path("none")), EPathKind::kMissing);
  EXPECT_EQ(GetPathKind(temp_.Path("file/below")), EPathKind::kMissing);
  EXPECT_EQ(GetPathKind("/dev/null"), EPathKind::kOther);
  ::chmod(temp_.Path("file").c_str(), 0640);
  EXPECT_TRUE(IsReadableByOthers(temp_.Path("file")));
  ::chmod(temp_.Path("file").c_str(), 0600);
  EXPECT_FALSE(IsReadableByOthers(temp_.Path("file")));
}

TEST_F(FilesTest, AbsolutePathStaysOrGetsTheCurrentFolder) {
  EXPECT_EQ(AbsolutePath("/a/b"), "/a/b");
  EXPECT_EQ(AbsolutePath("a"), (std::filesystem::current_path() / "a").string());
}

TEST(FileErrorsTest, NoSpaceIsAFullDiskOrAUsedUpQuota) {
  EXPECT_TRUE(IsNoSpace(ENOSPC));
  EXPECT_TRUE(IsNoSpace(EDQUOT));
  EXPECT_FALSE(IsNoSpace(EFBIG));
  EXPECT_FALSE(IsNoSpace(0));
  EXPECT_EQ(ErrorText(ENOENT), "No such file or directory");
}

}  // namespace
}  // namespace HostSystem
