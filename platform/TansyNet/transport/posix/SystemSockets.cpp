#include "TansyNet/transport/SystemSockets.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

namespace TansyNet::details {

namespace {

using Clock = std::chrono::steady_clock;

// Larger writes gain nothing and would hide progress from the send time-out.
constexpr std::size_t kWriteLimit = std::size_t{4} << 20;

IoResult Failed(int error, IoStatus would_block) {
  if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR) {
    return {.status = would_block};
  }
  return {.status = IoStatus::kFailed, .error = error};
}

iovec Piece(std::string_view text, std::size_t limit) {
  // The system's structure serves reading too, so it has no const; sendmsg only reads.
  return {const_cast<char*>(text.data()), std::min(text.size(), limit)};
}

}  // namespace

// The calls are the same as in the Windows file, but the headers that declare them differ, so the code stands twice.
int LookUpAddresses(const std::string& host, std::uint16_t port, bool numeric, std::vector<SocketAddress>& addresses) {
  addresses.clear();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  // AI_ADDRCONFIG is left out, because it would hide the loopback addresses of a machine without a network.
  hints.ai_flags = AI_NUMERICSERV | (numeric ? AI_NUMERICHOST : 0);
  addrinfo* first = nullptr;
  const int result = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &first);
  if (result != 0) {
    return result;
  }
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> found(first, &::freeaddrinfo);
  for (const addrinfo* entry = found.get(); entry != nullptr; entry = entry->ai_next) {
    SocketAddress address;
    if (entry->ai_addrlen <= address.bytes.size()) {
      std::memcpy(address.bytes.data(), entry->ai_addr, entry->ai_addrlen);
      address.size = static_cast<int>(entry->ai_addrlen);
      addresses.push_back(address);
    }
  }
  return addresses.empty() ? EAI_NONAME : 0;
}

std::string ResolveErrorText(int error) {
  return ::gai_strerror(error);
}

SocketHandle OpenSocket(const SocketAddress& address, int& error) {
  sockaddr_storage storage{};
  std::memcpy(&storage, address.bytes.data(), static_cast<std::size_t>(address.size));
  const int handle = ::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP);
  if (handle < 0) {
    error = errno;
    return kNoSocket;
  }
  // Requests are written whole, so waiting for more bytes would only delay them.
  const int on = 1;
  ::setsockopt(handle, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return handle;
}

void CloseSocket(SocketHandle socket) {
  ::close(static_cast<int>(socket));
}

void KeepFromChildren(SocketHandle socket) {
  ::fcntl(static_cast<int>(socket), F_SETFD, FD_CLOEXEC);
}

bool NameListener(SocketHandle socket, ListenerName& name) {
  const int number = static_cast<int>(socket);
  int listens = 0;
  socklen_t size = sizeof listens;
  if (::getsockopt(number, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0 || listens == 0) {
    return false;
  }
  sockaddr_storage address{};
  size = sizeof address;
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  char host[NI_MAXHOST] = {};
  char port[NI_MAXSERV] = {};
  if (::getsockname(number, plain, &size) != 0 || (address.ss_family != AF_INET && address.ss_family != AF_INET6) ||
      ::getnameinfo(plain, size, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return false;
  }
  name.address = host;
  name.port = static_cast<std::uint16_t>(std::strtoul(port, nullptr, 10));
  int is_ipv6_only = 1;
  size = sizeof is_ipv6_only;
  name.takes_ipv4_too = address.ss_family == AF_INET6 &&
                        ::getsockopt(number, IPPROTO_IPV6, IPV6_V6ONLY, &is_ipv6_only, &size) == 0 && is_ipv6_only == 0;
  return true;
}

SocketHandle CopySocket(SocketHandle socket) {
  return ::fcntl(static_cast<int>(socket), F_DUPFD_CLOEXEC, 0);
}

int StartConnect(SocketHandle socket, const SocketAddress& address) {
  sockaddr_storage storage{};
  std::memcpy(&storage, address.bytes.data(), static_cast<std::size_t>(address.size));
  const void* plain = &storage;
  const auto size = static_cast<socklen_t>(address.size);
  return ::connect(static_cast<int>(socket), static_cast<const sockaddr*>(plain), size) == 0 ? 0 : errno;
}

bool ConnectGoesOn(int error) {
  return error == EINPROGRESS || error == EINTR;
}

int PendingError(SocketHandle socket) {
  int error = 0;
  socklen_t size = sizeof error;
  return ::getsockopt(static_cast<int>(socket), SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

IoResult ReceiveBytes(SocketHandle socket, char* data, std::size_t size) {
  const ssize_t got = ::recv(static_cast<int>(socket), data, size, 0);
  if (got < 0) {
    return Failed(errno, IoStatus::kWantRead);
  }
  return {.status = got > 0 ? IoStatus::kDone : IoStatus::kEnd, .bytes = static_cast<std::size_t>(got)};
}

IoResult SendBytes(SocketHandle socket, std::string_view first, std::string_view second) {
  std::array<iovec, 2> pieces{Piece(first, kWriteLimit), Piece(second, kWriteLimit)};
  msghdr message{};
  message.msg_iov = pieces.data();
  message.msg_iovlen = pieces.size();
  const ssize_t sent = ::sendmsg(static_cast<int>(socket), &message, MSG_NOSIGNAL);
  if (sent > 0) {
    return {.status = IoStatus::kDone, .bytes = static_cast<std::size_t>(sent)};
  }
  return Failed(sent == 0 ? EAGAIN : errno, IoStatus::kWantWrite);
}

bool WaitForSocket(SocketHandle socket, bool for_read, bool for_write, int timeout_ms) {
  pollfd entry{};
  entry.fd = static_cast<int>(socket);
  entry.events = static_cast<short>((for_read ? POLLIN : 0) | (for_write ? POLLOUT : 0));
  const auto until = Clock::now() + std::chrono::milliseconds(timeout_ms);
  int left = timeout_ms;
  while (true) {
    const int ready = ::poll(&entry, 1, left);
    if (ready > 0) {
      return true;
    }
    if (ready < 0 && errno != EINTR) {
      return true;  // the next attempt to move bytes reports what is wrong
    }
    if (timeout_ms >= 0) {
      const auto rest = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
      if (rest <= 0) {
        return false;
      }
      left = static_cast<int>(rest);
    }
  }
}

std::uint32_t MostOpenSockets() {
  rlimit limit{};
  constexpr rlim_t kMost = std::numeric_limits<std::uint32_t>::max();
  return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? static_cast<std::uint32_t>(std::min(limit.rlim_cur, kMost)) : kMost;
}

int TimedOutError() {
  return ETIMEDOUT;
}

int ConnectionResetError() {
  return ECONNRESET;
}

bool IsClosedByPeer(int error) {
  return error == ECONNRESET || error == EPIPE || error == ECONNABORTED || error == ENOTCONN;
}

}  // namespace TansyNet::details
