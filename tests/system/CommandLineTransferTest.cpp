// Files of every kind going to a real server and coming back, and what is left when something gets in the way.
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "support/CommandLineFixture.h"

namespace system_tests {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr std::size_t kMiB = 1048576;

class CommandLineTransferTest : public CommandLineFixture {
 protected:
  // A file without content on the disk, so that large ones cost nothing.
  void MakeHole(const std::string& name, std::uint64_t size) const {
    Write(name, "");
    std::filesystem::resize_file(WorkPath(name), size);
  }

  // Counts the parts of unfinished uploads that the server has.
  int StoredParts() const {
    const std::vector<std::string> rows =
        Query(server_.Data("catalogue.db"), "select count(*) from local_object_task where size > 0 and is_deleted = 0");
    return rows.size() == 1 ? std::stoi(rows.front()) : -1;
  }

  bool IsPartialOnDisk() const {
    const std::vector<std::string> files = Files();
    return std::any_of(files.begin(), files.end(), [this](const std::string& name) {
      std::error_code gone;
      return name.ends_with(".part") && std::filesystem::file_size(WorkPath(name), gone) > 0 && !gone;
    });
  }
};

// ---- sizes and names

TEST_F(CommandLineTransferTest, CarriesFilesOfEverySize) {
  // These sizes lie around the size from which files are sent in parts, around the size of the parts, and around the
  // size of the pieces that are read back.
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, 2 * kMiB, 10 * kMiB - 1, 10 * kMiB + 1}) {
    const std::string content = RandomBytes(size, size);
    Write("file", content);
    const std::string url = Line(Do({"put", "file"}));
    EXPECT_EQ(Do({"stat", url}), url + "  " + std::to_string(size) + "\n");
    EXPECT_EQ(Do({"get", url, "copy"}), "copy\n");
    EXPECT_TRUE(Read("copy") == content) << size;
    EXPECT_TRUE(Do({"cat", url}) == content) << size;
  }
}

TEST_F(CommandLineTransferTest, PutsInAsManyPiecesAsAskedFor) {
  const std::string content = RandomBytes(3 * kMiB + 5, 3);
  Write("file", content);
  for (const char* pieces : {"1", "2", "7", "10000"}) {
    const std::string name = std::string("in-") + pieces;
    if (std::string(pieces) == "10000") {
      Write("file", content.substr(0, 20));  // it has fewer bytes than pieces
    }
    EXPECT_EQ(Do({"put", "file", "--name", name, "--pieces", pieces}), "/photos/" + name + "\n");
    EXPECT_TRUE(Do({"cat", "/photos/" + name}) == Read("file")) << pieces;
  }
  for (const char* pieces : {"0", "-1", "10001", "many", "", "1.5"}) {
    EXPECT_THAT(Failure(Run({"put", "file", "--pieces=" + std::string(pieces)})), StartsWith("2 tansy: ")) << pieces;
  }
  MakeHole("huge", 100 * kMiB);
  EXPECT_EQ(Failure(Run({"put", "huge", "--pieces", "3"})),
            "2 tansy: huge: pieces of 33.3 MiB are too large\n  give --pieces 4 or more\n");
}

TEST_F(CommandLineTransferTest, PutsStandardInputAsItComes) {
  const std::string content = RandomBytes(20 * kMiB + 3, 4);
  EXPECT_EQ(Do({"put", "-", "--name", "stream"}, content), "/photos/stream\n");
  EXPECT_TRUE(Do({"cat", "/photos/stream"}) == content);
  EXPECT_EQ(Do({"put", "-", "--name", "empty"}, ""), "/photos/empty\n");
  EXPECT_EQ(Do({"stat", "/photos/empty"}), "/photos/empty  0\n");
  const std::string url = Line(Do({"put", "-"}, "short"));
  EXPECT_THAT(url, MatchesRegex("/photos/[0-9a-f-]{36}\\.pfile"));
  EXPECT_EQ(Do({"cat", url}), "short");
  EXPECT_THAT(Failure(Run({"put", "-", "-"}, "x")), StartsWith("2 tansy: "));
}

TEST_F(CommandLineTransferTest, ReplacesAnObjectOfTheSameName) {
  Write("old", RandomBytes(9 * kMiB, 1));
  Write("new", "new");
  Do({"put", "old", "--name", "key"});
  Do({"put", "new", "--name", "key"});
  EXPECT_EQ(Do({"cat", "/photos/key"}), "new");
}

TEST_F(CommandLineTransferTest, TakesFilesOfEveryName) {
  const std::string names[] = {"two words.jpg",
                               "gr\xc3\xb6\xc3\x9f"
                               "e.jpg",
                               "\xe6\x96\x87.jpg",
                               "a'b\"c.jpg",
                               "per%cent.jpg",
                               "q?m.jpg",
                               "-odd.jpg",
                               "--json",
                               ".hidden",
                               std::string(251, 'n') + ".jpg"};
  std::vector<std::string> arguments = {"put", "--"};
  for (const std::string& name : names) {
    Write(name, "content of " + name);
    arguments.push_back(name);
  }
  const std::vector<std::string> urls = Lines(Do(arguments));
  ASSERT_EQ(urls.size(), std::size(names));
  for (std::size_t i = 0; i < urls.size(); ++i) {
    EXPECT_EQ(Do({"cat", urls[i]}), "content of " + names[i]);
  }
  EXPECT_THAT(urls[0], testing::EndsWith(".jpg"));
}

TEST_F(CommandLineTransferTest, NamesObjectsAsAskedFor) {
  Write("file", "content");
  for (const std::string& name :
       {std::string("gr\xc3\xb6\xc3\x9f"
                    "e.jpg"),
        std::string("-odd"), std::string("--"), std::string("a'b\"c"), std::string("50%"), std::string(128, 'n')}) {
    EXPECT_EQ(Do({"put", "file", "--name=" + name}), "/photos/" + name + "\n");
    EXPECT_EQ(Do({"stat", "/photos/" + name}), "/photos/" + name + "  7\n");
    EXPECT_EQ(Do({"get", "/photos/" + name, "copy"}), "copy\n");
    EXPECT_EQ(Do({"rm", "/photos/" + name}), "removed /photos/" + name + "\n");
  }
  EXPECT_EQ(Failure(Run({"put", "file", "--name", std::string(129, 'n')})),
            "2 tansy: the name has 129 bytes\n  names have at most 128\n");
  for (const char* name : {"two words", "a/b", "a?b", "a#b", "a\nb", "", "\x7f"}) {
    EXPECT_THAT(Failure(Run({"put", "file", "--name", name})),
                MatchesRegex("2 tansy: \".*\" cannot be the name of an object\n.*\n"))
        << name;
  }
  Write("other", "x");
  EXPECT_THAT(Failure(Run({"put", "file", "other", "--name", "key"})), StartsWith("2 tansy: "));
}

TEST_F(CommandLineTransferTest, SaysWhichLocalFileItCannotPut) {
  std::filesystem::create_directories(WorkPath("folder"));
  EXPECT_EQ(Failure(Run({"put", "missing.jpg"})),
            "3 tansy: missing.jpg: No such file or directory\n  check the path\n");
  EXPECT_EQ(Failure(Run({"put", "folder"})), "2 tansy: folder: is a folder\n  name the files in it\n");
  EXPECT_EQ(Failure(Run({"put", "/dev/null"})),
            "2 tansy: /dev/null: is no regular file\n  pipe it into 'tansy put -'\n");
  MakeHole("huge", std::uint64_t{4} << 30);
  EXPECT_EQ(Failure(Run({"put", "huge"})), "1 tansy: huge: is too large\n  objects are smaller than 4 GiB\n");
  EXPECT_FALSE(std::filesystem::exists(WorkPath("missing.jpg"))) << "nothing is made";
}

// ---- several at once

TEST_F(CommandLineTransferTest, PutsSeveralFilesInParallelAndListsThemInOrder) {
  std::vector<std::string> arguments = {"put"};
  for (int i = 0; i < 12; ++i) {
    const std::string name = "file" + std::to_string(i);
    Write(name, RandomBytes(i % 6 == 0 ? 11 * kMiB : 1000, static_cast<std::uint64_t>(i)));
    arguments.push_back(name);
  }
  arguments.insert(arguments.begin() + 4, "missing");
  const Ended ended = Run(arguments);
  EXPECT_EQ(Failure(ended), "3 tansy: missing: No such file or directory\n  check the path\n");
  const std::vector<std::string> urls = Lines(ended.out);
  ASSERT_EQ(urls.size(), 12u);
  for (std::size_t i = 0; i < urls.size(); ++i) {
    EXPECT_TRUE(Do({"cat", urls[i]}) == Read("file" + std::to_string(i))) << i;
  }
}

TEST_F(CommandLineTransferTest, SendsFourFilesAtATime) {
  std::vector<std::string> arguments = {"--pool", "photos", "put"};
  for (int i = 0; i < 8; ++i) {
    Write("file" + std::to_string(i), "content");
    arguments.push_back("file" + std::to_string(i));
  }
  server_.Signal(SIGSTOP);  // takes connections, and answers nothing
  CProgram program(Tansy(arguments));
  EXPECT_TRUE(WaitUntil([&] { return program.CountOpen("socket:") >= 4; }));
  EXPECT_EQ(program.CountOpen("socket:"), 4u);
  server_.Signal(SIGCONT);
  const Ended ended = program.WaitForEnd();
  EXPECT_EQ(Failure(ended), "0 ");
  const std::vector<std::string> urls = Lines(ended.out);
  EXPECT_EQ(std::set<std::string>(urls.begin(), urls.end()).size(), 8u);
}

// ---- where downloads go

TEST_F(CommandLineTransferTest, GetsToWhereItIsTold) {
  Write("file", "content");
  Do({"put", "file", "--name", "cat.jpg"});
  std::filesystem::create_directories(WorkPath("folder"));
  EXPECT_EQ(Do({"get", "/photos/cat.jpg"}), "cat.jpg\n");
  EXPECT_EQ(Read("cat.jpg"), "content");
  EXPECT_EQ(Do({"get", "/photos/cat.jpg", "folder"}), "folder/cat.jpg\n");
  EXPECT_EQ(Read("folder/cat.jpg"), "content");
  EXPECT_EQ(Do({"get", "/photos/cat.jpg", "two words"}), "two words\n");
  EXPECT_EQ(Do({"get", "/photos/cat.jpg", "--", "-odd"}), "-odd\n");
  Write("existing", "something longer that was there");
  Do({"get", "/photos/cat.jpg", "existing"});
  EXPECT_EQ(Read("existing"), "content");
  std::filesystem::create_symlink("existing", WorkPath("link"));
  Write("existing", "old");
  Do({"get", "/photos/cat.jpg", "link"});
  EXPECT_TRUE(std::filesystem::is_symlink(WorkPath("link")));
  EXPECT_EQ(Read("existing"), "content");
  EXPECT_EQ(Failure(Run({"get", "/photos/cat.jpg", "nowhere/file"})),
            "3 tansy: nowhere/file: No such file or directory\n  check the path\n");
  EXPECT_THAT(Files(), ElementsAre("-odd", "cat.jpg", "existing", "file", "folder", "link", "two words"));
}

TEST_F(CommandLineTransferTest, GetsRanges) {
  const std::string content = RandomBytes(9 * kMiB, 5);
  Write("file", content);
  Do({"put", "file", "--name", "key"});
  const auto range = [&](const std::string& text) { return Do({"get", "/photos/key", "-", "--range", text}); };
  EXPECT_EQ(range("0-1"), content.substr(0, 1));
  EXPECT_EQ(range("0-1024"), content.substr(0, 1024)) << "the end is not included";
  EXPECT_EQ(range("1000000-1000010"), content.substr(1000000, 10));
  EXPECT_TRUE(range("1-9000000") == content.substr(1, 8999999)) << "of more than one piece";
  EXPECT_EQ(range("9437180-"), content.substr(9437180));
  EXPECT_EQ(range("9437180-99999999"), content.substr(9437180)) << "as far as there are bytes";
  EXPECT_TRUE(range("0-") == content);
  EXPECT_EQ(Do({"get", "/photos/key", "part", "--range", "3-8"}), "part\n");
  EXPECT_EQ(Read("part"), content.substr(3, 5));
  for (const char* text : {"", "5", "-5", "5-5", "6-5", "a-b", "1-2-3", "0-99999999999999999999", " 1-2", "9437184-"}) {
    EXPECT_THAT(Failure(Run({"get", "/photos/key", "bad", "--range=" + std::string(text)})), StartsWith("2 tansy: "))
        << text;
  }
  EXPECT_THAT(Files(), ElementsAre("file", "part"));
}

// ---- what gets in the way

TEST_F(CommandLineTransferTest, LeavesNothingOnADiskThatIsFull) {
  Write("file", RandomBytes(6 * kMiB, 6));
  Do({"put", "file", "--name", "key"});
  Write("target", "old");
  Invocation limited = Tansy({"get", "/photos/key", "target"});
  limited.largest_file = 5 * kMiB;
  EXPECT_EQ(Failure(RunProgram(limited)), "1 tansy: target: File too large\n");
  EXPECT_EQ(Read("target"), "old");
  EXPECT_THAT(Files(), ElementsAre("file", "target"));
  EXPECT_EQ(Failure(Run({"get", "/photos/key", "/dev/full"})),
            "5 tansy: /dev/full: No space left on device\n  make room, or choose another folder\n");
}

class CommandLineFullServerTest : public CommandLineTransferTest {
 protected:
  void SetUp() override {
    launch_.small_disk = "objects";
    launch_.small_disk_bytes = 8 * kMiB;
    launch_.with_s3 = true;
    const bool started = server_.Start(launch_);
    if (server_.IsSmallDiskMissing()) {
      GTEST_SKIP() << "this machine does not allow a small disk to be mounted";
    }
    ASSERT_TRUE(started);
    Do({"mb", "photos"});
  }
};

TEST_F(CommandLineFullServerTest, SaysThatTheServerIsFull) {
  Write("whole", RandomBytes(9 * kMiB, 7));
  Write("parts", RandomBytes(12 * kMiB, 8));
  const std::string words =
      "the server has no space left (" + Url() + ": NotEnoughSpace)\n  remove objects with 'tansy rm --bytes'\n";
  EXPECT_EQ(Failure(Run({"put", "whole"})), "5 tansy: whole: " + words);
  EXPECT_EQ(Failure(Run({"put", "parts"})), "5 tansy: parts: " + words);
  EXPECT_EQ(Failure(Run({"put", "whole", "--name", "key", "--pieces", "5"})), "5 tansy: whole: " + words);
  EXPECT_EQ(Failure(Run({"put", "-", "--name", "key"}, Read("parts"))), "5 tansy: standard input: " + words);
  EXPECT_EQ(Run({"stat", "/photos/key"}).code, 3);
}

TEST_F(CommandLineFullServerTest, SaysThatTheServerIsFullByS3Too) {
  Write("parts", RandomBytes(9 * kMiB, 7));
  Write("whole", RandomBytes(8 * kMiB, 8));
  Invocation copy = Tansy({"cp", "parts", "whole", "s3://photos"});
  const std::string door = "http://127.0.0.1:" + std::to_string(server_.GetS3Port());
  copy.environment["TANSY_S3_URL"] = door;
  const std::string words =
      ": the server has no space left (" + door + ": NotEnoughSpace)\n  remove objects with 'tansy rm --bytes'\n";
  EXPECT_EQ(Failure(RunProgram(copy)), "5 tansy: s3://photos/parts" + words + "tansy: s3://photos/whole" + words);
}

TEST_F(CommandLineTransferTest, NoticesThatAFileBecomesShorterWhileItIsSent) {
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{}, std::vector<std::string>{"--name", "key"}}) {
    MakeHole("file", 40 * kMiB);
    std::vector<std::string> arguments = {"--pool", "photos", "put", "file"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    server_.Signal(SIGSTOP);
    CProgram program(Tansy(arguments));
    // Its size has been asked for when the first request is under way, and most of it has not been read.
    EXPECT_TRUE(WaitUntil([&] { return program.CountOpen("socket:") > 0; }));
    std::filesystem::resize_file(WorkPath("file"), 9 * kMiB);
    server_.Signal(SIGCONT);
    EXPECT_EQ(Failure(program.WaitForEnd()),
              "1 tansy: file: the file became shorter while it was read\n  try again when nobody writes it\n");
  }
  EXPECT_EQ(Run({"stat", "/photos/key"}).code, 3) << "nothing that looks whole";
}

TEST_F(CommandLineTransferTest, LeavesNothingOfADownloadThatIsInterrupted) {
  MakeHole("large", 120 * kMiB);
  Do({"put", "large", "--name", "large"});
  std::filesystem::remove(WorkPath("large"));
  Write("target", "old");
  CProgram program(Tansy({"get", "/photos/large", "target"}));
  EXPECT_TRUE(WaitUntil([&] { return IsPartialOnDisk(); }));
  server_.Signal(SIGSTOP);
  EXPECT_TRUE(program.IsRunning());
  program.Signal(SIGINT);
  const Ended ended = program.WaitForEnd();
  server_.Signal(SIGCONT);
  EXPECT_EQ(Failure(ended), "130 \ntansy: interrupted\n");
  EXPECT_EQ(ended.out, "");
  EXPECT_THAT(Files(), ElementsAre("target"));
  EXPECT_EQ(Read("target"), "old");
}

TEST_F(CommandLineTransferTest, LeavesNoObjectOfAnUploadThatIsInterrupted) {
  CProgram program(Tansy({"put", "-", "--name", "stream"}));
  EXPECT_TRUE(program.Feed(std::string(9 * kMiB, 'x')));  // one part can be sent, the next is not complete
  EXPECT_TRUE(WaitUntil([&] { return StoredParts() == 1; })) << "the server has bytes of it";
  program.Signal(SIGTERM);
  EXPECT_EQ(program.WaitForEnd().code, 130);
  EXPECT_EQ(Run({"stat", "/photos/stream"}).code, 3);
  EXPECT_EQ(Do({"put", "-", "--name", "stream"}, "again"), "/photos/stream\n");
}

TEST_F(CommandLineTransferTest, OutlivesItsTerminalWhenItShould) {
  for (const bool ignored : {true, false}) {
    const std::string name = ignored ? "outlives" : "ends";
    const std::string content = RandomBytes(9 * kMiB, 10);
    Invocation invocation = Tansy({"put", "-", "--name", name});
    invocation.ignore_hangup = ignored;
    CProgram program(invocation);
    EXPECT_TRUE(program.Feed(content));
    EXPECT_TRUE(WaitUntil([&] { return StoredParts() == 1; })) << "it is in the middle of its work";
    program.Signal(SIGHUP);
    EXPECT_EQ(program.WaitForEnd().code, ignored ? 0 : 130);
    EXPECT_EQ(Run({"cat", "/photos/" + name}).out == content, ignored) << "done to the end, or not at all";
  }
}

TEST_F(CommandLineTransferTest, EndsWhenNobodyReadsItsOutput) {
  Write("file", RandomBytes(9 * kMiB, 9));
  Do({"put", "file", "--name", "key"});
  Invocation shell = Tansy({"-c", TansyPath() + " cat /photos/key | head -c 10 | wc -c"});
  shell.program = "sh";
  const Ended ended = RunProgram(shell);
  EXPECT_EQ(ended.code, 0);
  EXPECT_THAT(ended.out, MatchesRegex(" *10\n"));
  EXPECT_EQ(ended.err, "") << "that is nothing to complain of";
}

TEST_F(CommandLineTransferTest, ASecondUploadWaitsForNobody) {
  // Two programs send the same name at once. One of the two is the object in the end, and it is whole.
  Write("a", std::string(9 * kMiB, 'a'));
  Write("b", std::string(9 * kMiB, 'b'));
  server_.Signal(SIGSTOP);  // until both have begun
  CProgram first(Tansy({"--pool", "photos", "put", "a", "--name", "key"}));
  CProgram second(Tansy({"--pool", "photos", "put", "b", "--name", "key"}));
  EXPECT_TRUE(WaitUntil([&] { return first.CountOpen("socket:") > 0 && second.CountOpen("socket:") > 0; }));
  server_.Signal(SIGCONT);
  EXPECT_EQ(Failure(first.WaitForEnd()), "0 ");
  EXPECT_EQ(Failure(second.WaitForEnd()), "0 ");
  const std::string content = Do({"cat", "/photos/key"});
  EXPECT_TRUE(content == Read("a") || content == Read("b"));
}

// ---- progress

TEST_F(CommandLineTransferTest, ShowsProgressOnATerminalOnly) {
  MakeHole("large", 12 * kMiB);
  Write("small", "x");
  for (const char* option : {"", "--quiet", "--json"}) {
    // The bucket is named, so that the first thing to wait for the stopped server is an upload.
    std::vector<std::string> arguments = {"--pool", "photos", "put", "large", "small", "missing"};
    if (*option != '\0') {
      arguments.insert(arguments.begin(), option);
    }
    Invocation invocation = Tansy(arguments);
    invocation.with_terminal = true;
    server_.Signal(SIGSTOP);
    CProgram program(invocation);
    // Long enough for a line of progress: it is drawn every tenth of a second.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    server_.Signal(SIGCONT);
    const Ended ended = program.WaitForEnd();
    EXPECT_EQ(ended.code, 3);
    EXPECT_EQ(Lines(ended.out).size(), 2u);
    EXPECT_EQ(ended.out.find('\x1b'), std::string::npos);
    if (*option == '\0') {
      EXPECT_THAT(ended.err, testing::ContainsRegex("put [0-9] of [0-9] files"));
      EXPECT_THAT(ended.err, HasSubstr("\r\x1b[Ktansy: missing: No such file or directory\r\n"))
          << "on a line of its own";
      EXPECT_THAT(ended.err, testing::Not(testing::ContainsRegex("[^\x1bK\n]tansy: missing")));
    } else {
      EXPECT_EQ(ended.err, "tansy: missing: No such file or directory\r\n  check the path\r\n") << option;
    }
  }
  EXPECT_EQ(Run({"put", "large"}).err, "");
}

}  // namespace
}  // namespace system_tests
