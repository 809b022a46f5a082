#include "support/Tansyd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <thread>

#include "fakes/ChildProcess.h"
#include "support/Ports.h"
#include "support/ProgramTexts.h"

namespace system_tests {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSmallDiskMissing = 97;  // exit code of a child that could not get one
constexpr int kFilterMissing = 96;
constexpr int kStartTries = 5;

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool WriteFile(const char* path, const std::string& text) {
  const int descriptor = ::open(path, O_WRONLY | O_CLOEXEC);
  const bool done = descriptor >= 0 && ::write(descriptor, text.data(), text.size()) >= 0;
  if (descriptor >= 0) {
    ::close(descriptor);
  }
  return done;
}

void CloseIfOpen(int& descriptor) {
  if (descriptor >= 0) {
    ::close(descriptor);
    descriptor = -1;
  }
}

// A mount that only this child sees. Works for root, and elsewhere where users may have name spaces of their own.
bool MountSmallDisk(const std::string& path, std::uint64_t bytes) {
  const uid_t user = ::getuid();
  const gid_t group = ::getgid();
  if (::unshare(CLONE_NEWNS) != 0) {
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !WriteFile("/proc/self/setgroups", "deny") ||
        !WriteFile("/proc/self/uid_map", std::to_string(user) + " " + std::to_string(user) + " 1") ||
        !WriteFile("/proc/self/gid_map", std::to_string(group) + " " + std::to_string(group) + " 1")) {
      return false;
    }
  }
  const std::string options = "size=" + std::to_string(bytes);
  return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

// Lets every socket of that family fail in this process and its children, as the kernel does that does not know it.
bool ForbidIpv6() {
  sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_INET6, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program = {.len = std::size(steps), .filter = steps};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
}

std::vector<std::string> EnvironmentOf(const Launch& launch) {
  std::set<std::string> own;
  for (const auto& [name, value] : launch.environment) {
    own.insert(name);
  }
  std::vector<std::string> variables = EnvironmentWithout(own);
  if (launch.with_keys) {
    const Keys keys;
    variables.push_back("TANSY_ACCESS_KEY=" + keys.access_key);
    variables.push_back("TANSY_SECRET_KEY=" + keys.secret_key);
  }
  for (const auto& [name, value] : launch.environment) {
    variables.push_back(name + "=" + value);
  }
  return variables;
}

// Makes a pipe that takes nothing more; returns its writing end.
int FullPipe(int& reading_end) {
  constexpr int kRoom = 4096;
  int ends[2] = {-1, -1};
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  EXPECT_EQ(::fcntl(ends[1], F_SETPIPE_SZ, kRoom), kRoom);
  EXPECT_EQ(::write(ends[1], std::string(kRoom, '.').data(), kRoom), kRoom);
  reading_end = ends[0];
  return ends[1];
}

Ended EndedOf(int status) {
  Ended ended;
  ended.exited = true;
  ended.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return ended;
}

}  // namespace

std::string ClientScript(const std::string& name) {
  return std::string(TANSY_TEST_CLIENTS) + "/" + name;
}

std::string TansydPath() {
  return TANSYD_PATH;
}

std::string SourceFolder() {
  return TANSY_SOURCES;
}

std::string ScriptPath(const std::string& name) {
  return std::string(TANSY_SCRIPTS) + "/" + name;
}

CTansyd::CTansyd(const std::string& folder, const std::string& name)
    : folder_(folder), name_(name), ports_(FreePorts(7)) {}

CTansyd::~CTansyd() {
  Kill();
  CheckSanitizers();
}

std::string CTansyd::Data(const std::string& name) const {
  return folder_ + "/" + name_ + (name.empty() ? "" : "/" + name);
}

std::string CTansyd::GetLog() const {
  return ReadFile(folder_ + "/" + name_ + ".log");
}

std::string CTansyd::GetErrors() const {
  return ReadFile(folder_ + "/" + name_ + ".err");
}

std::vector<std::string> CTansyd::Arguments(const Launch& launch) const {
  std::vector<std::string> arguments = {launch.program.empty() ? TANSYD_PATH : launch.program};
  if (launch.with_data) {
    arguments.insert(arguments.end(), {"--data", Data(), "--log-file", folder_ + "/" + name_ + ".log"});
  }
  if (launch.with_ports) {
    arguments.insert(
        arguments.end(),
        {"--object-port", std::to_string(ports_[0]), "--picture-port", std::to_string(ports_[1]), "--object-https-port",
         std::to_string(launch.with_https ? ports_[2] : 0), "--picture-https-port",
         std::to_string(launch.with_https ? ports_[3] : 0), "--s3-port", std::to_string(launch.with_s3 ? ports_[4] : 0),
         "--s3-https-port", std::to_string(launch.with_s3 && launch.with_https ? ports_[5] : 0), "--admin-port",
         std::to_string(launch.with_admin ? ports_[6] : 0)});
  }
  if (launch.with_ports && launch.with_local_ip) {
    arguments.insert(arguments.end(), {"--local-ip", "127.0.0.1"});
  }
  arguments.insert(arguments.end(), launch.arguments.begin(), launch.arguments.end());
  return arguments;
}

void CTansyd::Spawn(const Launch& launch) {
  int pipe_ends[2];
  ASSERT_EQ(::pipe2(pipe_ends, O_CLOEXEC), 0);
  const std::string error_path = folder_ + "/" + name_ + ".err";
  CloseIfOpen(stuck_);
  const int error_file = launch.stuck_errors
                             ? FullPipe(stuck_)
                             : ::open(error_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  ASSERT_GE(error_file, 0);
  std::vector<std::string> arguments = Arguments(launch);
  std::vector<std::string> variables = EnvironmentOf(launch);
  std::vector<char*> argument_pointers = Pointers(arguments);
  std::vector<char*> variable_pointers = Pointers(variables);
  const std::string start_folder = launch.folder.empty() ? folder_ : launch.folder;
  const std::string small_disk = Data(launch.small_disk);
  if (!launch.small_disk.empty()) {
    std::filesystem::create_directories(small_disk);
  }
  out_.clear();
  ready_line_.clear();
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  ASSERT_GE(pid_, 0);
  if (pid_ == 0) {
    // Only calls that are safe after a fork, but for the small disk's test of what the machine allows.
    Tansy::Tests::EndWithParent(parent);
    ::signal(SIGPIPE, SIG_DFL);
    ::dup2(pipe_ends[1], STDOUT_FILENO);
    ::dup2(error_file, STDERR_FILENO);
    if (!launch.small_disk.empty() && !MountSmallDisk(small_disk, launch.small_disk_bytes)) {
      ::_exit(kSmallDiskMissing);
    }
    if (launch.open_files > 0) {
      const rlimit limit = {launch.open_files, launch.open_files};
      ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    if (launch.without_ipv6 && !ForbidIpv6()) {
      ::_exit(kFilterMissing);
    }
    if (::chdir(start_folder.c_str()) == 0) {
      ::execve(argument_pointers[0], argument_pointers.data(), variable_pointers.data());
    }
    ::_exit(98);
  }
  ::close(pipe_ends[1]);
  ::close(error_file);
  CloseIfOpen(output_);
  output_ = pipe_ends[0];
}

// Waits for more output; false at its end or when the time is over.
bool CTansyd::ReadOutput(std::chrono::milliseconds patience) {
  pollfd item = {output_, POLLIN, 0};
  if (::poll(&item, 1, static_cast<int>(patience.count())) <= 0) {
    return false;
  }
  char buffer[4096];
  const ssize_t size = ::read(output_, buffer, sizeof buffer);
  if (size <= 0) {
    return false;
  }
  out_.append(buffer, static_cast<std::size_t>(size));
  return true;
}

bool CTansyd::WaitForReadyLine() {
  const auto deadline = Clock::now() + kPatience;
  while (Clock::now() < deadline) {
    const std::size_t begin = out_.find("tansyd ready");
    const std::size_t end = begin == std::string::npos ? begin : out_.find('\n', begin);
    if (end != std::string::npos) {
      ready_line_ = out_.substr(begin, end - begin);
      return true;
    }
    if (!ReadOutput(std::chrono::milliseconds(100)) && !IsRunning()) {
      return false;
    }
  }
  return false;
}

bool CTansyd::Start(const Launch& launch) {
  for (int tries = 0; tries < kStartTries; ++tries) {
    const std::size_t errors_before = GetErrors().size();
    Spawn(launch);
    if (testing::Test::HasFatalFailure()) {
      return false;
    }
    if (WaitForReadyLine()) {
      return true;
    }
    const Ended ended = pid_ > 0 ? WaitForEnd(std::chrono::seconds(0)) : Ended{};
    const std::string errors = GetErrors().substr(errors_before);
    if (is_small_disk_missing_ || is_filter_missing_) {
      return false;
    }
    if (launch.with_ports && errors.find("in use") != std::string::npos && errors.find("port") != std::string::npos) {
      ports_ = FreePorts(7);
      continue;
    }
    Kill();
    ADD_FAILURE() << "tansyd did not start; exit code " << ended.code << "\n" << errors << GetLog();
    return false;
  }
  ADD_FAILURE() << "tansyd found no free ports";
  return false;
}

Ended CTansyd::RunToEnd(const Launch& launch) {
  const std::size_t errors_before = GetErrors().size();
  Spawn(launch);
  Ended ended = WaitForEnd();
  ended.err = GetErrors().substr(errors_before);
  return ended;
}

bool CTansyd::IsRunning() {
  if (pid_ <= 0) {
    return false;
  }
  siginfo_t info = {};
  // Leaves the end to be collected by WaitForEnd.
  return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

Ended CTansyd::WaitForEnd(std::chrono::seconds patience) {
  const auto deadline = Clock::now() + patience;
  Ended ended;
  do {
    int status = 0;
    if (pid_ > 0 && ::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      while (ReadOutput(std::chrono::milliseconds(0))) {
      }
      ended = EndedOf(status);
      ended.out = out_;
      is_small_disk_missing_ = ended.code == kSmallDiskMissing;
      is_filter_missing_ = ended.code == kFilterMissing;
      return ended;
    }
    ReadOutput(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  } while (pid_ > 0 && Clock::now() < deadline);
  ended.out = out_;
  return ended;
}

bool CTansyd::Stop(int signal, std::chrono::seconds patience) {
  Signal(signal);
  const Ended ended = WaitForEnd(patience);
  if (!ended.exited || ended.code != 0) {
    ADD_FAILURE() << "tansyd did not stop with exit code 0: " << (ended.exited ? "code " : "still running ")
                  << ended.code << "\n"
                  << GetErrors();
    Kill();
    return false;
  }
  return true;
}

void CTansyd::Signal(int signal) const {
  if (pid_ > 0) {
    ::kill(pid_, signal);
  }
}

void CTansyd::Kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
  }
  CloseIfOpen(output_);
  CloseIfOpen(stuck_);
}

std::uint64_t CTansyd::GetMemory() const {
  std::istringstream statm(ReadFile("/proc/" + std::to_string(pid_) + "/statm"));
  std::uint64_t total = 0;
  std::uint64_t resident = 0;
  statm >> total >> resident;
  return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

void CTansyd::CheckSanitizers() const {
  const std::string errors = GetErrors();
  for (const char* mark : {"ThreadSanitizer", "AddressSanitizer", "LeakSanitizer", "runtime error:"}) {
    EXPECT_EQ(errors.find(mark), std::string::npos) << errors;
  }
}

}  // namespace system_tests
