#include "TansyNet/ClientConnectionSocket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace TansyNet::details {

namespace {

using Clock = std::chrono::steady_clock;

// Larger writes gain nothing and would hide progress from the send time-out.
constexpr std::size_t kWriteLimit = std::size_t{4} << 20;

int Lookup(const std::string& host, std::uint16_t port, int flags, addrinfo** found) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  return ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, found);
}

bool IsAgain(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

IoResult Failed(int error) {
  if (IsAgain(error)) {
    return {IoResult::Status::kAgain, 0, 0, false};
  }
  return {IoResult::Status::kFailed, 0, error, false};
}

iovec Piece(std::string_view text, std::size_t limit) {
  // The system's structure serves reading too and so has no const; sendmsg only reads.
  return {const_cast<char*>(text.data()), std::min(text.size(), limit)};
}

}  // namespace

int ResolveAddresses(const std::string& host, std::uint16_t port, std::vector<SocketAddress>& addresses) {
  addresses.clear();
  addrinfo* found = nullptr;
  int result = Lookup(host, port, AI_NUMERICHOST, &found);
  if (result != 0) {
    // Not AI_ADDRCONFIG: it would hide the loopback addresses of a machine without a network.
    result = Lookup(host, port, 0, &found);
  }
  if (result != 0) {
    return result;
  }
  for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
    SocketAddress address;
    if (entry->ai_addrlen <= address.bytes.size()) {
      std::memcpy(address.bytes.data(), entry->ai_addr, entry->ai_addrlen);
      address.size = static_cast<int>(entry->ai_addrlen);
      addresses.push_back(address);
    }
  }
  ::freeaddrinfo(found);
  return addresses.empty() ? EAI_NONAME : 0;
}

bool IsNumericAddress(const std::string& host) {
  addrinfo* found = nullptr;
  if (Lookup(host, 0, AI_NUMERICHOST, &found) != 0) {
    return false;
  }
  ::freeaddrinfo(found);
  return true;
}

std::string ResolveErrorText(int error) {
  return ::gai_strerror(error);
}

CClientSocket::~CClientSocket() {
  Close();
}

int CClientSocket::Connect(const SocketAddress& address, int timeout_ms) {
  Close();
  const int error = StartConnect(address);
  if (error == 0) {
    return 0;
  }
  if (error != EINPROGRESS && error != EINTR) {
    Close();
    return error;
  }
  const int outcome = Wait(false, true, timeout_ms) ? PendingError() : TimedOut();
  if (outcome != 0) {
    Close();
  }
  return outcome;
}

int CClientSocket::StartConnect(const SocketAddress& address) {
  sockaddr_storage storage{};
  std::memcpy(&storage, address.bytes.data(), static_cast<std::size_t>(address.size));
  const int handle = ::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP);
  if (handle < 0) {
    return errno;
  }
  handle_ = handle;
  // Requests are written whole, so there is nothing that waiting for more could join.
  const int on = 1;
  ::setsockopt(handle, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const void* plain = &storage;
  const int result = ::connect(handle, static_cast<const sockaddr*>(plain), static_cast<socklen_t>(address.size));
  return result == 0 ? 0 : errno;
}

int CClientSocket::PendingError() {
  int error = 0;
  socklen_t size = sizeof error;
  if (::getsockopt(static_cast<int>(handle_), SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
    return errno;
  }
  return error;
}

void CClientSocket::Close() {
  if (handle_ != kClosed) {
    ::close(static_cast<int>(handle_));
    handle_ = kClosed;
  }
}

IoResult CClientSocket::Read(char* data, std::size_t size) {
  const ssize_t got = ::recv(static_cast<int>(handle_), data, size, 0);
  if (got > 0) {
    return {IoResult::Status::kDone, static_cast<std::size_t>(got), 0, false};
  }
  if (got == 0) {
    return {IoResult::Status::kEnd, 0, 0, false};
  }
  return Failed(errno);
}

IoResult CClientSocket::Write(std::string_view first, std::string_view second) {
  std::array<iovec, 2> pieces{Piece(first, kWriteLimit), Piece(second, kWriteLimit)};
  msghdr message{};
  message.msg_iov = pieces.data();
  message.msg_iovlen = pieces.size();
  // A peer that is gone is an error to report, not a signal that ends the process.
  const ssize_t sent = ::sendmsg(static_cast<int>(handle_), &message, MSG_NOSIGNAL);
  if (sent > 0) {
    return {IoResult::Status::kDone, static_cast<std::size_t>(sent), 0, false};
  }
  return Failed(sent == 0 ? EAGAIN : errno);
}

bool CClientSocket::Wait(bool for_read, bool for_write, int timeout_ms) {
  pollfd entry{};
  entry.fd = static_cast<int>(handle_);
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

int CClientSocket::TimedOut() {
  return ETIMEDOUT;
}

int CClientSocket::ConnectionReset() {
  return ECONNRESET;
}

bool CClientSocket::IsClosedByPeer(int error) {
  return error == ECONNRESET || error == EPIPE || error == ECONNABORTED || error == ENOTCONN;
}

}  // namespace TansyNet::details
