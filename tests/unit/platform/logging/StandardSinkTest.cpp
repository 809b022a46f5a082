#include "logging/StandardSink.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fakes/CapturingLogSink.h"

namespace logging {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

class StandardSink : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = std::filesystem::path(::testing::TempDir()) /
              ("sink-" + std::to_string(std::hash<std::thread::id>{}(std::this_thread::get_id())) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(folder_);
    std::filesystem::create_directories(folder_);
    path_ = (folder_ / "tansy.log").string();
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::shared_ptr<CStandardSink> Make(std::size_t queue_lines = 4096) {
    std::string error;
    auto sink = CStandardSink::Create({path_, queue_lines}, error);
    EXPECT_NE(sink, nullptr) << error;
    return sink;
  }

  static Record Line(std::string_view text, int level = kError) {
    Record record;
    record.level = level;
    record.module = "platform.Test";
    record.text = text;
    return record;
  }

  static std::string Contents(const std::string& path) {
    std::ostringstream all;
    all << std::ifstream(path, std::ios::binary).rdbuf();
    return all.str();
  }
  std::string Contents() const { return Contents(path_); }

  static std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  std::filesystem::path folder_;
  std::string path_;
};

TEST_F(StandardSink, WritesTimeLevelModuleAndText) {
  const auto sink = Make();
  sink->Write(Line("[F]text[file(1)]"));
  sink->Flush();
  EXPECT_THAT(Contents(), MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z error "
                                       "platform\\.Test \\[F\\]text\\[file\\(1\\)\\]\n"));
}

TEST_F(StandardSink, TheTimeIsUtc) {
  const auto sink = Make();
  // The log's own clock, because std::time may be some milliseconds behind it.
  using Clock = std::chrono::system_clock;
  const std::time_t before = Clock::to_time_t(Clock::now());
  sink->Write(Line("now"));
  sink->Flush();
  const std::time_t after = Clock::to_time_t(Clock::now());
  char first[32];
  char last[32];
  std::strftime(first, sizeof first, "%Y-%m-%d %H:%M:%S", std::gmtime(&before));
  std::strftime(last, sizeof last, "%Y-%m-%d %H:%M:%S", std::gmtime(&after));
  const std::string written = Contents().substr(0, 19);
  EXPECT_GE(written, first);
  EXPECT_LE(written, last);
}

TEST_F(StandardSink, NamesTheLevels) {
  const auto sink = Make();
  for (const int level : {1, int{kTrace}, int{kNotable}, int{kDatabase}, int{kError}, 6}) {
    sink->Write(Line("x", level));
  }
  sink->Flush();
  const auto lines = Lines(Contents());
  ASSERT_EQ(lines.size(), 6u);
  const std::vector<std::string> names = {"debug", "trace", "notable", "database", "error", "error"};
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_THAT(lines[i], HasSubstr("Z " + names[i] + " platform.Test x"));
  }
}

TEST_F(StandardSink, NoTextForgesALine) {
  const auto sink = Make();
  sink->Write(Line("url=/a\r\n2026-11-03 08:05:09.123Z error platform.Test forged\x1b[31m"));
  sink->Flush();
  const auto lines = Lines(Contents());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], HasSubstr("url=/a\\r\\n2026"));
  EXPECT_THAT(lines[0], HasSubstr("forged\\x1b[31m"));
}

TEST_F(StandardSink, KeepsItsLastLines) {
  std::string error;
  StandardSinkOptions options;
  options.file_path = path_;
  options.kept_lines = 3;
  const auto sink = CStandardSink::Create(options, error);
  ASSERT_NE(sink, nullptr) << error;
  sink->AddSecret("hunter2");
  std::uint64_t number = 0;
  EXPECT_TRUE(sink->LinesAfter(number).empty());
  EXPECT_EQ(number, 0U);
  for (const char* text : {"one", "two hunter2\n", "three", "four"}) {
    sink->Write(Line(text));
  }
  sink->Flush();
  const std::vector<std::string> lines = sink->LinesAfter(number);
  EXPECT_EQ(number, 4U);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_TRUE(lines[0].ends_with("Z error platform.Test two ***\\n")) << lines[0];
  EXPECT_TRUE(lines[2].ends_with("Z error platform.Test four")) << lines[2];
  EXPECT_TRUE(sink->LinesAfter(number).empty());
  number = 3;
  EXPECT_EQ(sink->LinesAfter(number), std::vector<std::string>{lines[2]});
  number = 99;
  EXPECT_TRUE(sink->LinesAfter(number).empty()) << "of an earlier run perhaps";
  EXPECT_EQ(number, 4U);
}

TEST_F(StandardSink, KeepsNoLinesUnlessItIsTold) {
  std::string error;
  const auto sink = CStandardSink::Create({path_}, error);
  ASSERT_NE(sink, nullptr) << error;
  sink->Write(Line("one"));
  sink->Flush();
  std::uint64_t number = 0;
  EXPECT_TRUE(sink->LinesAfter(number).empty());
}

TEST_F(StandardSink, TellsRepeats) {
  const auto sink = Make();
  Record record = Line("again");
  record.repeats = 7;
  sink->Write(record);
  sink->Flush();
  EXPECT_THAT(Contents(), HasSubstr("error platform.Test (repeated 7 times) again\n"));
}

TEST_F(StandardSink, MasksEverySecretEverywhere) {
  const auto sink = Make();
  sink->AddSecret("S3cretKey");
  sink->AddSecret("other");
  sink->AddSecret("");
  sink->Write(Line("server_sk=S3cretKey S3cretKeyS3cretKey another"));
  sink->Flush();
  EXPECT_THAT(Contents(), HasSubstr("server_sk=*** ****** an***\n"));
  EXPECT_THAT(Contents(), Not(HasSubstr("S3cret")));
}

TEST_F(StandardSink, MasksASecretThatHoldsControlCharacters) {
  const auto sink = Make();
  sink->AddSecret("line\nend");
  sink->Write(Line("sk=line\nend."));
  sink->Flush();
  EXPECT_THAT(Contents(), HasSubstr("sk=***.\n"));
}

TEST_F(StandardSink, MasksTheBeginningOfASecretThatACutLeftOver) {
  const auto sink = Make();
  sink->AddSecret("S3cretKey");
  const auto before = SetSink(sink);
  static CallSite site;
  // Whatever length a client gives its part of the line, no piece of the secret shows.
  for (std::size_t length = kMaxTextBytes - 20; length < kMaxTextBytes; ++length) {
    logging::Write(site, kError, "m", "%s|S3cretKey and more of the text that is cut away",
                   std::string(length, 'x').c_str());
  }
  SetSink(before);
  sink->Flush();
  const auto lines = Lines(Contents());
  ASSERT_EQ(lines.size(), 20u);
  for (const auto& line : lines) {
    EXPECT_EQ(line.find("|S"), std::string::npos);
    EXPECT_TRUE(line.ends_with("..."));
  }
}

TEST_F(StandardSink, AppendsToWhatIsThere) {
  std::ofstream(path_) << "old\n";
  Make()->Write(Line("new"));
  EXPECT_THAT(Contents(), MatchesRegex("old\n.*new\n"));
}

TEST_F(StandardSink, ItsEndWritesWhatWaits) {
  {
    const auto sink = Make();
    for (int i = 0; i < 1000; ++i) {
      sink->Write(Line("line " + std::to_string(i)));
    }
  }
  const auto lines = Lines(Contents());
  ASSERT_EQ(lines.size(), 1000u);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(lines[i].ends_with(" line " + std::to_string(i)));
  }
}

TEST_F(StandardSink, ReopenFollowsARotation) {
  const auto sink = Make();
  sink->Write(Line("before"));
  sink->Flush();
  const std::string moved = (folder_ / "tansy.log.1").string();
  std::filesystem::rename(path_, moved);
  sink->Write(Line("between"));
  sink->Flush();
  std::string error;
  ASSERT_TRUE(sink->Reopen(error)) << error;
  sink->Write(Line("after"));
  sink->Flush();
  EXPECT_THAT(Contents(moved), HasSubstr("before\n"));
  EXPECT_THAT(Contents(moved), HasSubstr("between\n"));
  EXPECT_THAT(Contents(), HasSubstr("after\n"));
  EXPECT_EQ(Lines(Contents()).size(), 1u);
}

TEST_F(StandardSink, ChildProcessesDoNotGetTheFile) {
  const auto sink = Make();
  ASSERT_NE(sink, nullptr);
  int found = 0;
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error);
    if (!error && target == std::filesystem::canonical(path_)) {
      ++found;
      EXPECT_EQ(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
  }
  EXPECT_EQ(found, 1);
}

TEST_F(StandardSink, AReopenThatFailsKeepsTheOldFile) {
  const auto sink = Make();
  std::filesystem::rename(path_, folder_ / "moved");
  std::filesystem::create_directory(path_);
  std::string error;
  EXPECT_FALSE(sink->Reopen(error));
  EXPECT_THAT(error, HasSubstr("cannot open the log file"));
  sink->Write(Line("still"));
  sink->Flush();
  EXPECT_THAT(Contents((folder_ / "moved").string()), HasSubstr("still\n"));
}

TEST_F(StandardSink, CreateFailsWithAReason) {
  std::string error;
  EXPECT_EQ(CStandardSink::Create({(folder_ / "missing" / "x.log").string(), 10}, error), nullptr);
  EXPECT_THAT(error, HasSubstr("cannot open the log file"));
  EXPECT_THAT(error, HasSubstr("No such file or directory"));
  EXPECT_EQ(CStandardSink::Create({path_, 0}, error), nullptr);
  EXPECT_EQ(error, "the log queue must hold 1 to 1000000 lines");
  EXPECT_EQ(CStandardSink::Create({path_, 1000001}, error), nullptr);
}

TEST_F(StandardSink, AFullQueueDropsCountsAndTells) {
  const auto sink = Make(4);
  constexpr std::size_t kLines = 20000;
  for (std::size_t i = 0; i < kLines; ++i) {
    sink->Write(Line(std::to_string(i)));
  }
  sink->Flush();
  ASSERT_GT(sink->DroppedLines(), 0u) << "the machine writes faster than it queues: nothing to see";
  sink->Write(Line("end"));
  sink->Flush();
  std::size_t told = 0;
  std::size_t written = 0;
  for (const auto& line : Lines(Contents())) {
    const std::size_t at = line.find("error platform.logging ");
    if (at != std::string::npos && line.ends_with(" lines were lost")) {
      told += std::stoul(line.substr(at + 23));
    } else {
      ++written;
    }
  }
  EXPECT_EQ(told, sink->DroppedLines());
  EXPECT_EQ(written + told, kLines + 1);
}

#ifdef __linux__
// Counts the writes of this process so far.
std::size_t WritesSoFar() {
  std::ifstream in("/proc/self/io");
  for (std::string name; in >> name;) {
    std::size_t count = 0;
    in >> count;
    if (name == "syscw:") {
      return count;
    }
  }
  return 0;
}

TEST_F(StandardSink, LinesThatComeQuicklyLeaveTogether) {
  constexpr std::size_t kLines = 5000;
  const auto sink = Make(2 * kLines);
  const std::size_t before = WritesSoFar();
  for (std::size_t i = 0; i < kLines; ++i) {
    sink->Write(Line("line"));
  }
  sink->Flush();
  const std::size_t writes = WritesSoFar() - before;
  EXPECT_EQ(Lines(Contents()).size(), kLines);
  EXPECT_GE(writes, 1u);
  EXPECT_LT(writes, kLines / 10);
}

TEST_F(StandardSink, TellsAllLossesOnceTheyCanBeTold) {
  std::filesystem::create_symlink("/dev/full", path_);
  const auto sink = Make();
  for (int i = 0; i < 3; ++i) {
    sink->Write(Line("lost"));
    sink->Flush();
  }
  std::filesystem::remove(path_);
  std::string error;
  ASSERT_TRUE(sink->Reopen(error)) << error;
  sink->Write(Line("kept"));
  sink->Flush();
  EXPECT_THAT(Contents(), MatchesRegex(".* error platform\\.logging 3 lines were lost\n.* kept\n"));
}

TEST_F(StandardSink, AFullDiskLosesLinesAndNothingElse) {
  std::string error;
  const auto sink = CStandardSink::Create({"/dev/full", 16}, error);
  ASSERT_NE(sink, nullptr) << error;
  sink->Write(Line("one"));
  sink->Flush();
  sink->Write(Line("two"));
  sink->Flush();
  EXPECT_GE(sink->DroppedLines(), 2u);
}
#endif

TEST_F(StandardSink, ManyThreadsWriteWholeLines) {
  const auto sink = Make(100000);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&sink, i] {
      for (int n = 0; n < 500; ++n) {
        sink->Write(Line("thread " + std::to_string(i) + " line " + std::to_string(n) + " " + std::string(400, 'x')));
      }
    });
  }
  sink->AddSecret("unused");
  std::string error;
  EXPECT_TRUE(sink->Reopen(error));
  for (auto& thread : threads) {
    thread.join();
  }
  sink->Flush();
  const auto lines = Lines(Contents());
  EXPECT_EQ(lines.size(), 2000u);
  EXPECT_TRUE(std::all_of(lines.begin(), lines.end(),
                          [](const std::string& line) { return line.ends_with(std::string(400, 'x')); }));
  // Whoever wrote them, the times of the lines never go back.
  EXPECT_TRUE(std::is_sorted(lines.begin(), lines.end(), [](const std::string& left, const std::string& right) {
    return left.substr(0, 24) < right.substr(0, 24);
  }));
}

TEST_F(StandardSink, ALineThatComesAloneIsWrittenByItself) {
  const auto sink = Make();
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (std::size_t count = 1; count <= 3; ++count) {
    sink->Write(Line("alone"));
    while (Lines(Contents()).size() < count && std::chrono::steady_clock::now() < limit) {
      std::this_thread::yield();
    }
    ASSERT_EQ(Lines(Contents()).size(), count);
  }
}

#ifdef __linux__
// Makes standard error a pipe with room for 4096 bytes, for the program of a death test: nothing restores the old one.
// Returns the reading end.
int MakeErrorPipe(int flags) {
  int ends[2] = {-1, -1};
  const bool is_made = ::pipe(ends) == 0 && ::fcntl(ends[1], F_SETPIPE_SZ, 4096) == 4096 &&
                       ::fcntl(ends[1], F_SETFL, flags) == 0 && ::fcntl(ends[0], F_SETFL, O_NONBLOCK) == 0 &&
                       ::dup2(ends[1], STDERR_FILENO) == STDERR_FILENO;
  return is_made ? ends[0] : -1;
}

std::string ReadPipe(int pipe) {
  std::string all;
  char bytes[4096];
  for (ssize_t size = 0; (size = ::read(pipe, bytes, sizeof bytes)) > 0;) {
    all.append(bytes, static_cast<std::size_t>(size));
  }
  return all;
}

Record ErrorLine(std::string_view text) {
  Record record;
  record.level = kError;
  record.module = "platform.Test";
  record.text = text;
  return record;
}

// The alarm of a program that hangs is another end than the expected one.
constexpr unsigned kHangs = 60;

TEST(StandardSinkDeathTest, APipeThatNobodyEmptiesHoldsUpNeitherReopenNorTheEnd) {
  EXPECT_EXIT(
      {
        ::alarm(kHangs);
        const bool is_full =
            MakeErrorPipe(0) >= 0 && ::write(STDERR_FILENO, std::string(4096, '.').data(), 4096) == 4096;
        std::string error;
        auto sink = CStandardSink::Create({"", 16, std::chrono::milliseconds(200)}, error);
        sink->Write(ErrorLine("stuck"));
        sink->Flush();
        const bool is_reopened = sink->Reopen(error);
        sink.reset();
        std::_Exit(is_full && is_reopened ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(StandardSinkDeathTest, AfterATornLineTheNextOneStartsOnALineOfItsOwn) {
  EXPECT_EXIT(
      {
        ::alarm(kHangs);
        const int pipe = MakeErrorPipe(O_NONBLOCK);  // takes what it has room for, and refuses the rest
        std::string error;
        const auto sink = CStandardSink::Create({}, error);
        sink->Write(ErrorLine(std::string(6000, 'x')));
        sink->Flush();
        const bool is_torn = ReadPipe(pipe).ends_with("xxx");
        sink->Write(ErrorLine("after"));
        sink->Flush();
        const std::string rest = ReadPipe(pipe);
        std::_Exit(is_torn && rest.starts_with("\n") && rest.ends_with(" after\n") ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}
#endif

TEST(StandardSinkDeathTest, WithoutAFileLinesGoToStandardError) {
  EXPECT_EXIT(
      {
        std::string error;
        const auto sink = CStandardSink::Create({}, error);
        Record record;
        record.level = kNotable;
        record.module = "platform.Test";
        record.text = "to standard error";
        sink->Write(record);
        sink->Flush();
        std::_Exit(sink->Reopen(error) ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "Z notable platform.Test to standard error\n");
}

}  // namespace
}  // namespace logging
