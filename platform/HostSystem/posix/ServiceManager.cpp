#include "HostSystem/ServiceManager.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

namespace HostSystem {
namespace details {
namespace {

// The first socket that the manager hands over has this number, and the others follow.
constexpr int kFirstSocket = 3;

std::string_view Variable(const char* name) {
  const char* text = std::getenv(name);
  return text == nullptr ? std::string_view() : std::string_view(text);
}

// Empty for a text that is no number.
std::optional<std::uint64_t> NumberIn(const char* name) {
  const std::string_view text = Variable(name);
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc{} && end == text.data() + text.size() && !text.empty() ? std::optional(number)
                                                                                   : std::nullopt;
}

std::string MonotonicMicroseconds() {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  constexpr std::int64_t kMicroseconds = 1'000'000;
  constexpr std::int64_t kNanosecondsEach = 1000;
  return std::to_string(std::int64_t{now.tv_sec} * kMicroseconds + now.tv_nsec / kNanosecondsEach);
}

std::string Message(EServiceState state) {
  switch (state) {
    case EServiceState::kReady:
      return "READY=1";
    case EServiceState::kReloading:
      return "RELOADING=1\nMONOTONIC_USEC=" + MonotonicMicroseconds();
    case EServiceState::kStopping:
      return "STOPPING=1";
    case EServiceState::kAlive:
      break;
  }
  return "WATCHDOG=1";
}

// A name that begins with '@' lies in the name space without files, where it begins with a zero byte.
bool AddressOf(std::string_view name, sockaddr_un& address, socklen_t& size) {
  const bool is_known = name.starts_with('/') || name.starts_with('@');
  if (!is_known || name.size() >= sizeof address.sun_path) {
    return false;
  }
  address.sun_family = AF_UNIX;
  std::copy(name.begin(), name.end(), address.sun_path);
  const bool is_file = address.sun_path[0] == '/';
  if (!is_file) {
    address.sun_path[0] = '\0';
  }
  size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + (is_file ? 1 : 0));
  return true;
}

bool IsForThisProcess(const char* name) {
  const std::optional<std::uint64_t> process = NumberIn(name);
  return process.has_value() && *process == static_cast<std::uint64_t>(::getpid());
}

}  // namespace
}  // namespace details

void TellServiceManager(EServiceState state) {
  sockaddr_un address = {};
  socklen_t size = 0;
  if (!details::AddressOf(details::Variable("NOTIFY_SOCKET"), address, size)) {
    return;
  }
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket < 0) {
    return;
  }
  const std::string message = details::Message(state);
  // A manager that takes nothing is in more trouble than this message can help with.
  static_cast<void>(::sendto(socket, message.data(), message.size(), MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&address), size));
  ::close(socket);
}

std::optional<std::chrono::microseconds> WatchdogPeriod() {
  const std::optional<std::uint64_t> period = details::NumberIn("WATCHDOG_USEC");
  const bool is_for_others = !details::Variable("WATCHDOG_PID").empty() && !details::IsForThisProcess("WATCHDOG_PID");
  if (!period.has_value() || *period == 0 || is_for_others) {
    return std::nullopt;
  }
  return std::chrono::microseconds(*period);
}

std::vector<std::intptr_t> TakeServiceSockets() {
  std::vector<std::intptr_t> sockets;
  if (details::IsForThisProcess("LISTEN_PID")) {
    const auto most = static_cast<std::uint64_t>(std::max(::sysconf(_SC_OPEN_MAX), 0L));
    const std::uint64_t count = std::min(details::NumberIn("LISTEN_FDS").value_or(0), most);
    for (int each = details::kFirstSocket; each < details::kFirstSocket + static_cast<int>(count); ++each) {
      if (::fcntl(each, F_SETFD, FD_CLOEXEC) == 0) {
        sockets.push_back(each);
      }
    }
  }
  for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) {
    ::unsetenv(name);
  }
  return sockets;
}

}  // namespace HostSystem
