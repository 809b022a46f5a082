#include "HostSystem/Process.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

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

}  // namespace
}  // namespace details

void TakeSignals() {
  const sigset_t set = details::WatchedSignals();
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  // A limit on file sizes then shows as a failed write instead of ending the process.
  std::signal(SIGXFSZ, SIG_IGN);
}

ESignal WaitForSignal() {
  const sigset_t set = details::WatchedSignals();
  while (true) {
    int received = 0;
    if (::sigwait(&set, &received) == 0) {
      return received == SIGHUP ? ESignal::kReload : ESignal::kStop;
    }
  }
}

bool IsHangupIgnored() {
  struct sigaction action = {};
  return ::sigaction(SIGHUP, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void MakeFilesPrivate() {
  ::umask(0077);
}

void RaiseOpenFileLimit() {
  rlimit limit = {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

std::string HostName() {
  char name[256] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace HostSystem
