// Folders and names with slashes: what tansy does through the S3 door of a real server.
#include <signal.h>

#include <algorithm>
#include <filesystem>

#include "support/CommandLineFixture.h"
#include "support/S3Curl.h"

namespace system_tests {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr std::size_t kMiB = 1048576;

class CommandLineTreeTest : public CommandLineFixture {
 protected:
  CommandLineTreeTest() { launch_.with_s3 = true; }

  Invocation TansyWithDoor(const std::vector<std::string>& arguments) const {
    Invocation invocation = Tansy(arguments);
    invocation.environment["TANSY_S3_URL"] = "http://127.0.0.1:" + std::to_string(server_.GetS3Port());
    return invocation;
  }
  Ended RunS3(const std::vector<std::string>& arguments) const { return RunProgram(TansyWithDoor(arguments)); }
  // Runs it, expects success without a word on standard error, and gives the lines of standard output.
  std::vector<std::string> DoS3(const std::vector<std::string>& arguments) const {
    const Ended ended = RunS3(arguments);
    EXPECT_EQ(Failure(ended), "0 ") << testing::PrintToString(arguments);
    return Lines(ended.out);
  }

  // All files below a folder of the work folder, hidden ones too.
  std::vector<std::string> FilesBelow(const std::string& name) const {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(WorkPath(name))) {
      if (entry.is_symlink() || !entry.is_directory()) {
        files.push_back(entry.path().lexically_relative(WorkPath(name)).string());
      }
    }
    std::sort(files.begin(), files.end());
    return files;
  }

  // Counts the lines that begin so.
  static std::size_t CountOf(const std::string& beginning, const std::string& text) {
    const std::vector<std::string> lines = Lines(text);
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& line) { return line.starts_with(beginning); }));
  }

  bool HasPartialBelow(const std::string& name) const {
    std::error_code ignored;
    if (!std::filesystem::exists(WorkPath(name), ignored)) {
      return false;
    }
    const std::vector<std::string> files = FilesBelow(name);
    return std::any_of(files.begin(), files.end(), [](const std::string& file) { return file.ends_with(".part"); });
  }
};

TEST_F(CommandLineTreeTest, CarriesFoldersThereAndBack) {
  const std::vector<std::pair<std::string, std::string>> files = {{"a b.txt", "blank"},
                                                                  {"empty", ""},
                                                                  {"sub/100%.txt", "percent"},
                                                                  {"sub/deep/\xc3\xbc+&=?#.txt", "signs"},
                                                                  {"sub/deep/" + std::string(200, 'n'), "long"},
                                                                  {"sub/\xff", "no text"}};
  for (const auto& [name, content] : files) {
    Write("tree/" + name, content);
  }
  Write("tree/big", RandomBytes(3 * kMiB, 1));
  EXPECT_EQ(DoS3({"put", "-r", "tree"}).size(), files.size() + 1);
  EXPECT_THAT(DoS3({"ls", "photos"}), ElementsAre("tree/"));
  EXPECT_THAT(DoS3({"ls", "photos/tree/"}), ElementsAre("a b.txt", "big", "empty", "sub/"));
  EXPECT_EQ(DoS3({"ls", "-r", "photos"}).size(), files.size() + 1);
  DoS3({"get", "-r", "photos/tree", "back"});
  DoS3({"cp", "-r", "s3://photos/tree/sub", "sub"});
  for (const auto& [name, content] : files) {
    EXPECT_EQ(Read("back/" + name), content) << name;
  }
  EXPECT_TRUE(Read("back/big") == Read("tree/big"));
  EXPECT_EQ(FilesBelow("back"), FilesBelow("tree"));
  EXPECT_EQ(FilesBelow("sub"), FilesBelow("tree/sub"));
}

TEST_F(CommandLineTreeTest, NamesOneObjectForBothProtocols) {
  Write("file", "content");
  DoS3({"cp", "file", "s3://photos/2026/a b.jpg"});
  EXPECT_EQ(Do({"cat", "s3://photos/2026/a b.jpg"}), "content");
  EXPECT_EQ(Do({"cat", "/photos/2026%2Fa%20b.jpg"}), "content");
  EXPECT_EQ(Do({"get", "s3://photos/2026/a b.jpg"}), "a b.jpg\n");
  EXPECT_EQ(Read("a b.jpg"), "content");
  Do({"put", "file", "--name", "plain"});
  EXPECT_THAT(DoS3({"ls", "photos"}), ElementsAre("2026/", "plain"));
  EXPECT_THAT(DoS3({"find", "photos", "--name", "*.jpg"}), ElementsAre("s3://photos/2026/a b.jpg"));
  EXPECT_THAT(DoS3({"find", "photos", "--larger", "8"}), IsEmpty());
  EXPECT_THAT(DoS3({"du", "--bytes", "photos"}), ElementsAre("7   1  s3://photos/2026/", "14  2  s3://photos"));
  EXPECT_EQ(Do({"rm", "s3://photos/2026/a b.jpg"}), "removed s3://photos/2026/a b.jpg\n");
  EXPECT_THAT(DoS3({"ls", "-r", "photos"}), ElementsAre("plain"));
}

TEST_F(CommandLineTreeTest, GetsFoldersOfObjectsThatTheOtherProtocolStored) {
  Write("small", "content");
  Write("large", RandomBytes(10 * kMiB, 1));
  Do({"put", "--keep-name", "small", "large"});
  EXPECT_EQ(DoS3({"get", "-r", "photos", "back"}).size(), 2u);
  EXPECT_EQ(Read("back/small"), "content");
  EXPECT_TRUE(Read("back/large") == Read("large"));
  Do({"put", "--keep-name", "small", "large"});
  EXPECT_EQ(DoS3({"sync", "s3://photos", "synced"}).size(), 2u);
  EXPECT_TRUE(Read("synced/large") == Read("large"));
}

// Names come from the server, and whoever may write there must not be able to write here.
TEST_F(CommandLineTreeTest, WritesNothingOutsideOfTheFolder) {
  Write("file", "evil");
  for (const char* key :
       {"p/../../outside", "p//absolute", "p/a\nb", "p/..", "p/x/../../../outside", "p/link/inside"}) {
    DoS3({"cp", "file", std::string("s3://photos/") + key});
  }
  DoS3({"cp", "file", "s3://photos/p/good"});
  std::filesystem::create_directories(WorkPath("here/elsewhere"));
  std::filesystem::create_directories(WorkPath("target"));
  std::filesystem::create_directory_symlink("../here/elsewhere", WorkPath("target/link"));
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"get", "-r", "photos/p", "target"}, {"sync", "s3://photos/p", "target"}}) {
    const Ended ended = RunS3(command);
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.err, HasSubstr("cannot be the name of a local file"));
    EXPECT_THAT(ended.err, Not(HasSubstr("a\nb")));
    EXPECT_THAT(FilesBelow("target"), ElementsAre("good", "link"));
    EXPECT_THAT(FilesBelow("here"), IsEmpty());
    EXPECT_THAT(Files(), ElementsAre("file", "here", "target"));
    std::filesystem::remove(WorkPath("target/good"));
  }
}

TEST_F(CommandLineTreeTest, SyncsToTheServer) {
  Write("tree/same", "same");
  Write("tree/sub/other", "one");
  Write("tree/sub/longer", "1");
  EXPECT_EQ(DoS3({"sync", "tree", "s3://photos/t"}).size(), 3u);
  EXPECT_THAT(DoS3({"sync", "tree", "s3://photos/t"}), IsEmpty()) << "there is nothing left to do";
  Write("tree/sub/other", "two");  // it has the size that it had
  Write("tree/sub/longer", "12");
  Write("tree/new", "new");
  std::filesystem::remove(WorkPath("tree/same"));
  Write("outside", "");
  DoS3({"cp", "outside", "s3://photos/t-beside"});
  EXPECT_THAT(DoS3({"sync", "--dry-run", "--delete", "tree", "s3://photos/t"}),
              ElementsAre("would put s3://photos/t/new", "would put s3://photos/t/sub/longer",
                          "would put s3://photos/t/sub/other", "would remove s3://photos/t/same"));
  EXPECT_EQ(Do({"cat", "s3://photos/t/sub/other"}), "one") << "a dry run does nothing";
  EXPECT_EQ(DoS3({"sync", "tree", "s3://photos/t"}).size(), 3u);
  EXPECT_THAT(DoS3({"ls", "-r", "photos/t/"}), ElementsAre("new", "same", "sub/longer", "sub/other"));
  EXPECT_THAT(DoS3({"sync", "--delete", "tree", "s3://photos/t"}), ElementsAre("removed s3://photos/t/same"));
  EXPECT_EQ(Do({"cat", "s3://photos/t/sub/other"}), "two");
  EXPECT_THAT(DoS3({"ls", "-r", "photos"}), ElementsAre("t-beside", "t/new", "t/sub/longer", "t/sub/other"));
}

TEST_F(CommandLineTreeTest, SyncsFromTheServer) {
  Write("tree/a", "1");
  Write("tree/sub/b", "2");
  DoS3({"sync", "tree", "s3://photos"});
  EXPECT_THAT(DoS3({"sync", "--dry-run", "s3://photos", "back"}),
              UnorderedElementsAre("would get back/a", "would get back/sub/b"));
  EXPECT_THAT(Files(), ElementsAre("tree"));
  EXPECT_THAT(DoS3({"sync", "s3://photos", "back"}), ElementsAre("back/a", "back/sub/b"));
  Write("back/a", "9");
  Write("back/more/c", "3");
  EXPECT_THAT(DoS3({"sync", "--delete", "s3://photos", "back"}), ElementsAre("back/a", "removed back/more/c"));
  EXPECT_EQ(FilesBelow("back"), FilesBelow("tree"));
  EXPECT_EQ(Read("back/a"), "1");
  EXPECT_FALSE(std::filesystem::exists(WorkPath("back/more")));
}

// A wrong name, or a disk that is not mounted, must not remove everything.
TEST_F(CommandLineTreeTest, DeletesNothingForAnEmptySource) {
  Write("tree/a", "1");
  DoS3({"sync", "tree", "s3://photos/t"});
  std::filesystem::create_directories(WorkPath("empty"));
  EXPECT_THAT(Failure(RunS3({"sync", "--delete", "empty", "s3://photos/t"})), StartsWith("2 tansy: empty: is empty"));
  EXPECT_THAT(Failure(RunS3({"sync", "--delete", "none", "s3://photos/t"})), StartsWith("3 tansy: none: "));
  EXPECT_THAT(Failure(RunS3({"sync", "--delete", "s3://photos/typo", "tree"})),
              StartsWith("2 tansy: s3://photos/typo: "));
  EXPECT_THAT(Failure(RunS3({"sync", "--delete", "s3://typo", "tree"})), StartsWith("3 tansy: s3://typo: "));
  EXPECT_THAT(FilesBelow("tree"), ElementsAre("a"));
  EXPECT_THAT(DoS3({"ls", "-r", "photos"}), ElementsAre("t/a"));
}

// The server has what stands here under a name that sync does not write; and a mark of a folder is no content.
TEST_F(CommandLineTreeTest, DeletesNothingThatItCouldNotBringBack) {
  Write("tree/a\\b", "1");
  Write("tree/good", "1");
  DoS3({"sync", "tree", "s3://photos/t"});
  Write("tree/extra", "1");
  Ended ended = RunS3({"sync", "--delete", "s3://photos/t", "tree"});
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.err, HasSubstr("note: nothing was removed, because not all objects can become local files\n"));
  EXPECT_THAT(FilesBelow("tree"), ElementsAre("a\\b", "extra", "good"));
  EXPECT_EQ(CS3Curl(server_).Put("/photos/marks/", "").status, 200);
  EXPECT_THAT(Failure(RunS3({"sync", "--delete", "s3://photos/marks", "tree"})),
              StartsWith("2 tansy: s3://photos/marks: is empty"));
  EXPECT_THAT(FilesBelow("tree"), ElementsAre("a\\b", "extra", "good"));
  // A file whose key is too long for the server cannot be put; what it may have been renamed from stays.
  std::filesystem::remove(WorkPath("tree/good"));
  Write("tree/" + std::string(250, 'x') + "/" + std::string(250, 'x') + "/" + std::string(250, 'x') + "/" +
            std::string(250, 'x') + "/" + std::string(250, 'x'),
        "1");
  ended = RunS3({"sync", "--delete", "tree", "s3://photos/t"});
  EXPECT_NE(ended.code, 0);
  EXPECT_THAT(ended.err, HasSubstr("note: nothing was removed, because not everything could be carried\n"));
  EXPECT_THAT(DoS3({"ls", "-r", "photos/t/"}), ElementsAre("a\\b", "extra", "good"));
}

TEST_F(CommandLineTreeTest, LeavesLinksOutAndSaysSo) {
  Write("tree/a", "1");
  std::filesystem::create_directory_symlink("/etc", WorkPath("tree/link"));
  const Ended ended = RunS3({"put", "-r", "tree", "s3://photos/t"});
  EXPECT_EQ(Failure(ended), "0 note: tree/link: is no regular file; it is left out\n");
  EXPECT_THAT(DoS3({"ls", "-r", "photos"}), ElementsAre("t/a"));
}

TEST_F(CommandLineTreeTest, RemovesFoldersAndBuckets) {
  for (const char* name : {"tree/2025/a", "tree/2025/b/c", "tree/2025-plans", "tree/2026/d"}) {
    Write(name, "1");
  }
  DoS3({"sync", "tree", "s3://photos"});
  EXPECT_THAT(DoS3({"rm", "-r", "photos/2025"}),
              ElementsAre("removed s3://photos/2025/a", "removed s3://photos/2025/b/c"));
  EXPECT_THAT(DoS3({"ls", "photos"}), ElementsAre("2025-plans", "2026/"));
  EXPECT_THAT(Failure(RunS3({"rm", "-r", "photos/2025"})), StartsWith("3 tansy: s3://photos/2025/: "));
  EXPECT_THAT(Failure(RunS3({"rb", "photos"})), StartsWith("1 tansy: bucket photos: the bucket is not empty"));
  DoS3({"rm", "-r", "photos"});
  EXPECT_THAT(DoS3({"rb", "photos"}), ElementsAre("removed photos"));
  EXPECT_THAT(DoS3({"ls"}), IsEmpty());
  EXPECT_THAT(Failure(RunS3({"ls", "photos"})), StartsWith("3 tansy: s3://photos: there is no such bucket"));
  EXPECT_THAT(Failure(RunS3({"rb", "photos/x"})), StartsWith("2 tansy: "));
}

class CommandLineRegionTest : public CommandLineTreeTest {
 protected:
  CommandLineRegionTest() { launch_.arguments = {"--s3-region", "eu-1"}; }
};

TEST_F(CommandLineRegionTest, WorksWithAServerOfAnotherRegion) {
  for (const char* name : {"tree/a", "tree/b", "tree/c", "tree/d"}) {
    Write(name, name);
  }
  EXPECT_EQ(DoS3({"put", "-r", "tree"}).size(), 4u);
  DoS3({"cp", "s3://photos/tree/a", "."});
  EXPECT_EQ(Read("a"), "tree/a");
  DoS3({"cp", "s3://photos/tree/a", "s3://photos/copy"});
}

TEST_F(CommandLineTreeTest, SaysWhatIsWrong) {
  Write("file", "1");
  EXPECT_THAT(Failure(RunS3({"cp", "file", "other"})), StartsWith("2 tansy: neither side is on the server\n"));
  EXPECT_THAT(Failure(RunS3({"cp", "file"})), StartsWith("2 tansy: "));
  EXPECT_THAT(Failure(RunS3({"cp", ".", "s3://photos"})), StartsWith("2 tansy: .: is a folder\n"));
  EXPECT_THAT(Failure(RunS3({"cp", "none", "s3://photos"})), StartsWith("3 tansy: none: "));
  EXPECT_THAT(Failure(RunS3({"cp", "s3://photos/none", "."})), StartsWith("3 tansy: s3://photos/none: "));
  EXPECT_THAT(Failure(RunS3({"sync", "a", "b"})), StartsWith("2 tansy: neither side"));
  EXPECT_THAT(Failure(RunS3({"sync", "s3://a", "s3://b"})), StartsWith("2 tansy: both sides"));
  EXPECT_THAT(Failure(RunS3({"put", "-r", ".", "--name", "x"})), StartsWith("2 tansy: --name does not go with"));
  for (const char* jobs : {"0", "65", "many", "-1", ""}) {
    EXPECT_THAT(Failure(RunS3({"cp", "file", "s3://photos", std::string("--jobs=") + jobs})), StartsWith("2 tansy: "));
  }
  EXPECT_THAT(Failure(RunS3({"cp", "file", "s3://photos", "--limit-rate", "fast"})), StartsWith("2 tansy: "));
}

TEST_F(CommandLineTreeTest, FindsTheDoorOfADataFolder) {
  Invocation invocation = Tansy({"ls"});
  invocation.environment.erase("TANSY_SERVER");
  invocation.environment["TANSY_DATA"] = server_.Data();
  EXPECT_EQ(RunProgram(invocation).out, "photos\n");
  invocation.arguments = {"doctor"};
  const Ended doctor = RunProgram(invocation);
  EXPECT_EQ(doctor.code, 0);
  EXPECT_THAT(doctor.out, Not(HasSubstr("warning"))) << "there is nothing to mend";
  EXPECT_THAT(doctor.out, HasSubstr("certificate  there is none yet"));
  invocation.arguments = {"ls"};
  server_.Stop();
  launch_.with_s3 = false;
  ASSERT_TRUE(server_.Start(launch_));
  EXPECT_THAT(Failure(RunProgram(invocation)), StartsWith("2 tansy: no S3 door is known"));
}

TEST_F(CommandLineTreeTest, LeavesNoHalfFileWhenItIsInterrupted) {
  Write("big", RandomBytes(20 * kMiB, 2));  // it comes in ranges
  DoS3({"cp", "big", "s3://photos/f/big"});
  CProgram get(TansyWithDoor({"get", "-r", "photos/f", "target", "--limit-rate", "2M"}));
  ASSERT_TRUE(WaitUntil([this] { return HasPartialBelow("target"); }));
  get.Signal(SIGINT);
  const Ended ended = get.WaitForEnd();
  EXPECT_EQ(ended.code, 130);
  EXPECT_THAT(FilesBelow("target"), IsEmpty());
}

TEST_F(CommandLineTreeTest, LeavesNoHalfObjectWhenItIsInterrupted) {
  Write("tree/big", RandomBytes(20 * kMiB, 5));
  Write("tree/small", "content");
  CProgram sync(TansyWithDoor({"--verbose", "sync", "tree", "s3://photos/t", "--limit-rate", "8M"}));
  ASSERT_TRUE(WaitUntil([&] { return sync.Errors().find("> PUT") != std::string::npos; }));
  sync.Signal(SIGINT);
  EXPECT_EQ(sync.WaitForEnd().code, 130);
  EXPECT_EQ(Failure(RunS3({"stat", "s3://photos/t/big"})).substr(0, 2), "3 ");
  DoS3({"sync", "tree", "s3://photos/t"});
  EXPECT_THAT(DoS3({"ls", "-r", "photos"}), ElementsAre("t/big", "t/small"));
  EXPECT_TRUE(Do({"cat", "s3://photos/t/big"}) == Read("tree/big"));
}

TEST_F(CommandLineTreeTest, GoesOnWhenTheServerIsStartedAgain) {
  for (int i = 0; i < 40; ++i) {
    Write("tree/" + std::to_string(i), RandomBytes(50000, static_cast<std::uint64_t>(i)));
  }
  CProgram put(TansyWithDoor({"put", "-r", "tree", "--limit-rate", "1M"}));
  ASSERT_TRUE(WaitUntil([&] { return !put.Output().empty(); }));
  server_.Kill();
  ASSERT_TRUE(put.IsRunning());
  ASSERT_TRUE(server_.Start(launch_));
  const Ended ended = put.WaitForEnd();
  EXPECT_EQ(ended.code, 0) << ended.err;
  DoS3({"get", "-r", "photos/tree", "back"});
  for (const std::string& name : FilesBelow("tree")) {
    EXPECT_TRUE(Read("back/" + name) == Read("tree/" + name)) << name;
  }
}

TEST_F(CommandLineTreeTest, CarriesLargeFilesInPartsAndRanges) {
  const std::string content = RandomBytes(20 * kMiB + 3, 3);
  Write("tree/big", content);
  DoS3({"put", "-r", "tree", "--jobs", "3"});
  EXPECT_THAT(DoS3({"--json", "ls", "-r", "photos"}).at(0), HasSubstr("-3\"}")) << "the tag of three parts";
  EXPECT_THAT(DoS3({"sync", "tree", "s3://photos/tree"}), IsEmpty()) << "the digest of the parts is compared";
  DoS3({"get", "-r", "photos/tree", "back"});
  EXPECT_TRUE(Read("back/big") == content);
  EXPECT_EQ(Do({"get", "s3://photos/tree/big", "--jobs", "4", "copy"}), "copy\n");
  EXPECT_TRUE(Read("copy") == content);
  EXPECT_EQ(Do({"get", "s3://photos/tree/big", "--range", "100-20000000", "part"}), "part\n");
  EXPECT_TRUE(Read("part") == content.substr(100, 19999900));
  Write("tree/big", content.substr(0, 20 * kMiB) + "xyz");
  EXPECT_EQ(DoS3({"sync", "tree", "s3://photos/tree"}).size(), 1u) << "only its last bytes differ";
  DoS3({"cp", "s3://photos/tree/big", "s3://photos/copies/"});
  EXPECT_TRUE(Do({"cat", "s3://photos/copies/big"}) == Read("tree/big"));
}

TEST_F(CommandLineTreeTest, GoesOnWithAPutThatWasKilled) {
  const std::string content = RandomBytes(40 * kMiB, 4);
  Write("big", content);
  std::size_t had = 0;
  {
    CProgram put(TansyWithDoor({"--verbose", "put", "--resume", "big", "s3://photos/big", "--limit-rate", "8M"}));
    ASSERT_TRUE(WaitUntil([&] { return put.Errors().find("< 200 to PUT") != std::string::npos; }));
    put.Signal(SIGKILL);
    had = CountOf("< 200 to PUT", put.WaitForEnd().err);
  }
  EXPECT_EQ(Failure(RunS3({"ls", "-r", "photos"})), "0 ");
  const Ended ended = RunS3({"--verbose", "put", "--resume", "big", "s3://photos/big"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_GE(had, 1u);
  EXPECT_LE(CountOf("> PUT", ended.err), 5 - had) << "what the server had was not sent again";
  EXPECT_TRUE(Do({"cat", "s3://photos/big"}) == content);
}

}  // namespace
}  // namespace system_tests
