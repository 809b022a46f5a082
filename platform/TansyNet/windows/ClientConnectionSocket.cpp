// winsock2.h has to come before anything that includes windows.h.
#include <winsock2.h>
#include <ws2tcpip.h>

#include "TansyNet/ClientConnectionSocket.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#pragma comment(lib, "ws2_32.lib")

namespace TansyNet::details {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kWriteLimit = std::size_t{4} << 20;

// Winsock answers nothing before it is started, and counts how often that was done.
void StartSockets() {
  static const int started = [] {
    WSADATA data{};
    return ::WSAStartup(MAKEWORD(2, 2), &data);
  }();
  static_cast<void>(started);
}

int Lookup(const std::string& host, std::uint16_t port, int flags, addrinfo** found) {
  StartSockets();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  return ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, found);
}

IoResult Failed(int error) {
  if (error == WSAEWOULDBLOCK || error == WSAEINTR) {
    return {IoResult::Status::kAgain, 0, 0, false};
  }
  return {IoResult::Status::kFailed, 0, error, false};
}

WSABUF Piece(std::string_view text) {
  return {static_cast<ULONG>(std::min(text.size(), kWriteLimit)), const_cast<char*>(text.data())};
}

}  // namespace

int ResolveAddresses(const std::string& host, std::uint16_t port, std::vector<SocketAddress>& addresses) {
  addresses.clear();
  addrinfo* found = nullptr;
  int result = Lookup(host, port, AI_NUMERICHOST, &found);
  if (result != 0) {
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
  return ::gai_strerrorA(error);
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
  if (error != WSAEWOULDBLOCK) {
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
  StartSockets();
  sockaddr_storage storage{};
  std::memcpy(&storage, address.bytes.data(), static_cast<std::size_t>(address.size));
  const SOCKET handle = ::WSASocketW(storage.ss_family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                                     WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (handle == INVALID_SOCKET) {
    return ::WSAGetLastError();
  }
  handle_ = static_cast<std::intptr_t>(handle);
  u_long non_blocking = 1;
  ::ioctlsocket(handle, FIONBIO, &non_blocking);
  const BOOL on = TRUE;
  ::setsockopt(handle, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
  const int result = ::connect(handle, reinterpret_cast<const sockaddr*>(&storage), address.size);
  return result == 0 ? 0 : ::WSAGetLastError();
}

int CClientSocket::PendingError() {
  int error = 0;
  int size = sizeof error;
  if (::getsockopt(static_cast<SOCKET>(handle_), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size) != 0) {
    return ::WSAGetLastError();
  }
  return error;
}

void CClientSocket::Close() {
  if (handle_ != kClosed) {
    ::closesocket(static_cast<SOCKET>(handle_));
    handle_ = kClosed;
  }
}

IoResult CClientSocket::Read(char* data, std::size_t size) {
  const int got = ::recv(static_cast<SOCKET>(handle_), data, static_cast<int>(std::min(size, kWriteLimit)), 0);
  if (got > 0) {
    return {IoResult::Status::kDone, static_cast<std::size_t>(got), 0, false};
  }
  if (got == 0) {
    return {IoResult::Status::kEnd, 0, 0, false};
  }
  return Failed(::WSAGetLastError());
}

IoResult CClientSocket::Write(std::string_view first, std::string_view second) {
  std::array<WSABUF, 2> pieces{Piece(first), Piece(second)};
  DWORD sent = 0;
  const int result = ::WSASend(static_cast<SOCKET>(handle_), pieces.data(), static_cast<DWORD>(pieces.size()), &sent, 0,
                               nullptr, nullptr);
  if (result == 0 && sent > 0) {
    return {IoResult::Status::kDone, static_cast<std::size_t>(sent), 0, false};
  }
  return Failed(result == 0 ? WSAEWOULDBLOCK : ::WSAGetLastError());
}

bool CClientSocket::Wait(bool for_read, bool for_write, int timeout_ms) {
  WSAPOLLFD entry{};
  entry.fd = static_cast<SOCKET>(handle_);
  entry.events = static_cast<SHORT>((for_read ? POLLRDNORM : 0) | (for_write ? POLLWRNORM : 0));
  return ::WSAPoll(&entry, 1, timeout_ms) != 0;
}

int CClientSocket::TimedOut() {
  return WSAETIMEDOUT;
}

int CClientSocket::ConnectionReset() {
  return WSAECONNRESET;
}

bool CClientSocket::IsClosedByPeer(int error) {
  return error == WSAECONNRESET || error == WSAECONNABORTED || error == WSAESHUTDOWN || error == WSAENOTCONN;
}

}  // namespace TansyNet::details
