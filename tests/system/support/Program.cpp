#include "support/Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "fakes/ChildProcess.h"
#include "support/ProgramTexts.h"

namespace system_tests {
namespace {

using Clock = std::chrono::steady_clock;

std::vector<std::string> EnvironmentOf(const Invocation& invocation) {
  std::set<std::string> own = {"HOME", "XDG_CONFIG_HOME"};
  for (const auto& [name, value] : invocation.environment) {
    own.insert(name);
  }
  std::vector<std::string> variables = EnvironmentWithout(own);
  if (invocation.environment.count("HOME") == 0) {
    variables.push_back("HOME=" + invocation.folder);
  }
  for (const auto& [name, value] : invocation.environment) {
    variables.push_back(name + "=" + value);
  }
  return variables;
}

int NamelessFile() {
  return ::memfd_create("stream", MFD_CLOEXEC);
}

std::string ContentOf(int descriptor) {
  std::string content;
  char buffer[65536];
  ssize_t size = 0;
  for (off_t at = 0; (size = ::pread(descriptor, buffer, sizeof buffer, at)) > 0; at += size) {
    content.append(buffer, static_cast<std::size_t>(size));
  }
  return content;
}

void CloseIfOpen(int& descriptor) {
  if (descriptor >= 0) {
    ::close(descriptor);
    descriptor = -1;
  }
}

// What the child does before it becomes the program; only calls that are safe after a fork.
void Prepare(const Invocation& invocation, pid_t parent, int input, int output, int errors) {
  Tansy::Tests::EndWithParent(parent);
  ::dup2(input, STDIN_FILENO);
  ::dup2(output, STDOUT_FILENO);
  ::dup2(errors, STDERR_FILENO);
  ::signal(SIGPIPE, SIG_DFL);
  if (invocation.ignore_hangup) {
    ::signal(SIGHUP, SIG_IGN);
  }
  if (invocation.largest_file > 0) {
    const rlimit limit = {invocation.largest_file, invocation.largest_file};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  if (::chdir(invocation.folder.c_str()) != 0) {
    ::_exit(98);
  }
}

}  // namespace

std::string TansyPath() {
  return TANSY_PATH;
}

CProgram::CProgram(const Invocation& invocation) {
  int pipe_ends[2] = {-1, -1};
  EXPECT_EQ(::pipe2(pipe_ends, O_CLOEXEC), 0);
  const std::string& output = invocation.output;
  output_ = output.empty() ? NamelessFile() : ::open(output.c_str(), O_WRONLY | O_CLOEXEC);
  errors_ = NamelessFile();
  int program_end = -1;
  if (invocation.with_terminal) {
    winsize size = {};
    size.ws_row = 25;
    size.ws_col = 100;
    EXPECT_EQ(::openpty(&terminal_, &program_end, nullptr, nullptr, &size), 0);
    ::fcntl(terminal_, F_SETFD, FD_CLOEXEC);
    ::fcntl(program_end, F_SETFD, FD_CLOEXEC);
  }
  std::vector<std::string> arguments = {invocation.program};
  arguments.insert(arguments.end(), invocation.arguments.begin(), invocation.arguments.end());
  std::vector<std::string> variables = EnvironmentOf(invocation);
  std::vector<char*> argument_pointers = Pointers(arguments);
  std::vector<char*> variable_pointers = Pointers(variables);
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  EXPECT_GE(pid_, 0);
  if (pid_ == 0) {
    Prepare(invocation, parent, pipe_ends[0], output_, program_end >= 0 ? program_end : errors_);
    ::execvpe(argument_pointers[0], argument_pointers.data(), variable_pointers.data());
    ::_exit(97);
  }
  ::close(pipe_ends[0]);
  CloseIfOpen(program_end);
  input_ = pipe_ends[1];
}

CProgram::~CProgram() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  CloseInput();
  CloseIfOpen(output_);
  CloseIfOpen(errors_);
  CloseIfOpen(terminal_);
}

bool CProgram::Feed(std::string_view bytes) {
  struct sigaction ignore = {};
  struct sigaction before = {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &before);
  while (!bytes.empty()) {
    const ssize_t written = ::write(input_, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) {
      break;
    }
    bytes.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
  }
  ::sigaction(SIGPIPE, &before, nullptr);
  return bytes.empty();
}

void CProgram::CloseInput() {
  CloseIfOpen(input_);
}

void CProgram::Signal(int signal) const {
  if (pid_ > 0) {
    ::kill(pid_, signal);
  }
}

bool CProgram::IsRunning() {
  siginfo_t info = {};
  return pid_ > 0 && ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

std::string CProgram::Output() const {
  return ContentOf(output_);
}

std::string CProgram::Errors() {
  if (terminal_ < 0) {
    return ContentOf(errors_);
  }
  ReadTerminal();
  return terminal_text_;
}

void CProgram::ReadTerminal() {
  pollfd item = {terminal_, POLLIN, 0};
  while (terminal_ >= 0 && ::poll(&item, 1, 0) > 0) {
    char buffer[4096];
    const ssize_t size = ::read(terminal_, buffer, sizeof buffer);
    if (size <= 0) {
      return;
    }
    terminal_text_.append(buffer, static_cast<std::size_t>(size));
  }
}

std::size_t CProgram::CountOpen(const std::string& name) const {
  std::size_t count = 0;
  std::error_code error;
  const std::string folder = "/proc/" + std::to_string(pid_) + "/fd";
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    std::error_code gone;
    const std::filesystem::path target = std::filesystem::read_symlink(entry.path(), gone);
    if (!gone && target.string().find(name) != std::string::npos) {
      ++count;
    }
  }
  return count;
}

Ended CProgram::WaitForEnd(std::chrono::seconds patience) {
  CloseInput();
  const auto deadline = Clock::now() + patience;
  Ended ended;
  while (pid_ > 0) {
    int status = 0;
    ReadTerminal();
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      ended.exited = true;
      ended.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    } else if (Clock::now() > deadline) {
      ADD_FAILURE() << "the program does not end";
      ::kill(pid_, SIGKILL);
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  ended.out = Output();
  ended.err = Errors();
  return ended;
}

Ended RunProgram(const Invocation& invocation, std::string_view input) {
  CProgram program(invocation);
  program.Feed(input);
  return program.WaitForEnd();
}

bool WaitUntil(const std::function<bool()>& condition) {
  const auto deadline = Clock::now() + kPatience;
  while (!condition()) {
    if (Clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  return true;
}

}  // namespace system_tests
