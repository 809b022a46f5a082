// Something goes wrong while tansy works: objects are replaced, servers are started again, programs are killed. What
// tansy leaves behind must be whole, and what it says must be true.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/CommandLineFixture.h"

namespace system_tests {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr std::size_t kMiB = 1048576;

class CommandLineDamageTest : public CommandLineFixture {
 protected:
  void MakePipe(const std::string& name) const { ASSERT_EQ(::mkfifo(WorkPath(name).c_str(), 0600), 0); }

  // Reads what a program writes into a named pipe, up to `size` bytes or its end.
  static std::string ReadPipe(int pipe, std::size_t size) {
    std::string text(size, '\0');
    std::size_t done = 0;
    for (ssize_t more = 1; more > 0 && done < size; done += static_cast<std::size_t>(more)) {
      more = ::read(pipe, text.data() + done, size - done);
      if (more < 0) {
        break;
      }
    }
    text.resize(done);
    return text;
  }

  std::uintmax_t SizeOf(const std::string& name) const {
    std::error_code missing;
    const std::uintmax_t size = std::filesystem::file_size(WorkPath(name), missing);
    return missing ? 0 : size;
  }
};

TEST_F(CommandLineDamageTest, NeverMixesTwoVersionsOfAnObject) {
  const std::string before = RandomBytes(40 * kMiB, 1);
  const std::string after = RandomBytes(40 * kMiB, 2);
  Write("before", before);
  Write("after", after);
  for (const std::string& command : {std::string("get"), std::string("cat")}) {
    Do({"put", "before", "--name", "film"});
    const std::string name = "pipe-of-" + command;
    MakePipe(name);
    Invocation invocation = Tansy({"get", "/photos/film", name});
    if (command == "cat") {
      invocation = Tansy({"cat", "/photos/film"});
      invocation.output = WorkPath(name);
    }
    const int pipe = ::open(WorkPath(name).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(pipe, 0);
    CProgram program(invocation);
    std::string read = ReadPipe(pipe, kMiB);
    Do({"put", "after", "--name", "film"});
    // The other end of the pipe is held by the test too: the rest is read until the size is reached or the program
    // ends.
    ASSERT_EQ(::fcntl(pipe, F_SETFL, O_NONBLOCK), 0);
    while (read.size() < before.size()) {
      const bool runs = program.IsRunning();
      const std::string more = ReadPipe(pipe, before.size() - read.size());
      read += more;
      if (more.empty() && !runs) {
        break;
      }
    }
    const Ended ended = program.WaitForEnd();
    ::close(pipe);
    EXPECT_TRUE(before.starts_with(read)) << command << ": bytes of another version";
    EXPECT_EQ(ended.code == 0, read.size() == before.size()) << command << ": " << ended.err;
    if (ended.code != 0) {
      EXPECT_THAT(ended.err, HasSubstr("changed while it was read")) << command;
    }
  }
}

TEST_F(CommandLineDamageTest, PutsStandardInputWhileTheServerIsStartedAgain) {
  const std::string content = RandomBytes(44 * kMiB + 7, 3);
  CProgram program(Tansy({"put", "-", "--name", "stream"}));
  ASSERT_TRUE(program.Feed(std::string_view(content).substr(0, 20 * kMiB)));
  // Two parts of 8 MiB are on their way; the server has them when it says so.
  EXPECT_TRUE(WaitUntil([&] {
    return Query(server_.Data("catalogue.db"),
                 "select count(*) from local_object_task where size > 0 and is_deleted = 0") ==
           std::vector<std::string>{"2"};
  }));
  ASSERT_TRUE(server_.Stop());
  ASSERT_TRUE(server_.Start(launch_));
  ASSERT_TRUE(program.Feed(std::string_view(content).substr(20 * kMiB)));
  const Ended ended = program.WaitForEnd();
  EXPECT_EQ(Failure(ended), "0 ");
  EXPECT_TRUE(Do({"cat", "/photos/stream"}) == content);
}

TEST_F(CommandLineDamageTest, PutsAFileWhileTheServerIsKilledAndStartedAgain) {
  const std::string content = RandomBytes(96 * kMiB, 4);
  Write("film", content);
  CProgram program(Tansy({"put", "film", "--name", "film", "--verify"}));
  EXPECT_TRUE(WaitUntil([&] { return program.CountOpen("socket:") >= 3 || !program.IsRunning(); }));
  server_.Kill();
  ASSERT_TRUE(server_.Start(launch_));
  const Ended ended = program.WaitForEnd();
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_TRUE(Do({"cat", "/photos/film"}) == content);
}

TEST_F(CommandLineDamageTest, ResumesADownloadThatWasKilled) {
  const std::string content = RandomBytes(120 * kMiB, 5);
  Write("film", content);
  Do({"put", "film", "--name", "film"});
  std::filesystem::remove(WorkPath("film"));
  {
    CProgram program(Tansy({"get", "--resume", "/photos/film"}));
    EXPECT_TRUE(WaitUntil([&] { return SizeOf(".tansy-film.part") > 40 * kMiB; }));
    server_.Signal(SIGSTOP);
    EXPECT_TRUE(program.IsRunning());
    program.Signal(SIGKILL);
    EXPECT_EQ(program.WaitForEnd().code, 137);
    server_.Signal(SIGCONT);
  }
  EXPECT_FALSE(std::filesystem::exists(WorkPath("film")));
  const Ended ended = Run({"--verbose", "get", "--resume", "/photos/film"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.err, testing::ContainsRegex("> Range: bytes=[1-9][0-9]*-125829120\n"));
  EXPECT_TRUE(Read("film") == content);
  EXPECT_THAT(Files(), ElementsAre("film"));
}

TEST_F(CommandLineDamageTest, ResumesADownloadThatWasInterruptedWhereItWas) {
  const std::string content = RandomBytes(120 * kMiB, 8);
  Write("film", content);
  Do({"put", "film", "--name", "film"});
  std::filesystem::remove(WorkPath("film"));
  std::uintmax_t there = 0;
  {
    CProgram program(Tansy({"get", "--resume", "/photos/film"}));
    EXPECT_TRUE(WaitUntil([&] { return SizeOf(".tansy-film.part") > 40 * kMiB; }));
    server_.Signal(SIGSTOP);
    there = SizeOf(".tansy-film.part");
    program.Signal(SIGINT);
    EXPECT_EQ(program.WaitForEnd().code, 130);
    server_.Signal(SIGCONT);
  }
  const std::string pin = Read(".tansy-film.pin");
  EXPECT_GE(std::stoull(pin.substr(pin.rfind(' ') + 1)), there) << pin;
  EXPECT_EQ(Run({"get", "--resume", "/photos/film"}).code, 0);
  EXPECT_TRUE(Read("film") == content);
}

TEST_F(CommandLineDamageTest, StartsOverWhenTheObjectWasReplacedBetweenTwoRuns) {
  const std::string after = RandomBytes(60 * kMiB, 7);
  Write("before", RandomBytes(60 * kMiB, 6));
  Write("after", after);
  Do({"put", "before", "--name", "film"});
  Invocation limited = Tansy({"get", "--resume", "/photos/film"});
  limited.largest_file = 35 * kMiB;
  EXPECT_EQ(Failure(RunProgram(limited)), "1 tansy: film: File too large\n");
  Do({"put", "after", "--name", "film"});
  const Ended ended = Run({"get", "--resume", "/photos/film"});
  EXPECT_EQ(Failure(ended), "0 note: film: the object has changed since; the download starts over\n");
  EXPECT_TRUE(Read("film") == after);
  EXPECT_THAT(Files(), ElementsAre("after", "before", "film"));
}

}  // namespace
}  // namespace system_tests
