#include "HostSystem/Process.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <limits>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace HostSystem {
namespace details {
namespace {

sigset_t WatchedSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  return set;
}

ESignal Meaning(int signal) {
  return signal == SIGHUP ? ESignal::kReload : ESignal::kStop;
}

}  // namespace
}  // namespace details

void TakeSignals() {
  const sigset_t set = details::WatchedSignals();
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  // This makes a limit on file sizes show as a failed write instead of ending the process.
  std::signal(SIGXFSZ, SIG_IGN);
}

ESignal WaitForSignal() {
  const sigset_t set = details::WatchedSignals();
  while (true) {
    int received = 0;
    if (::sigwait(&set, &received) == 0) {
      return details::Meaning(received);
    }
  }
}

std::optional<ESignal> WaitForSignal(std::chrono::milliseconds patience) {
  const sigset_t set = details::WatchedSignals();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(patience);
  const std::chrono::nanoseconds rest = patience - seconds;
  timespec limit = {};
  limit.tv_sec = static_cast<std::time_t>(seconds.count());
  limit.tv_nsec = static_cast<long>(rest.count());
  const int received = ::sigtimedwait(&set, nullptr, &limit);
  return received > 0 ? std::optional(details::Meaning(received)) : std::nullopt;
}

bool IsHangupIgnored() {
  struct sigaction action = {};
  return ::sigaction(SIGHUP, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void MakeFilesPrivate() {
  ::umask(0077);
}

void ShareHeaps() {
#if defined(__GLIBC__)
  constexpr int kHeaps = 2;
  ::mallopt(M_ARENA_MAX, kHeaps);
#endif
}

std::uint64_t RaiseOpenFileLimit() {
  rlimit limit = {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return std::numeric_limits<std::uint64_t>::max();
  }
  rlimit raised = limit;
  raised.rlim_cur = limit.rlim_max;
  if (limit.rlim_cur < limit.rlim_max && ::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
    limit = raised;
  }
  return limit.rlim_cur == RLIM_INFINITY ? std::numeric_limits<std::uint64_t>::max() : limit.rlim_cur;
}

std::string MachineStart() {
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  std::string text;
  std::getline(file, text);
  return text;
}

std::string HostName() {
  char name[256] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

char** ArgumentsInUtf8(int /*count*/, char** arguments) {
  return arguments;
}

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

bool HasEnvironment(const char* name) {
  return std::getenv(name) != nullptr;
}

}  // namespace HostSystem
