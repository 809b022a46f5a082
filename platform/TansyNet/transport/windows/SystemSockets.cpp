// winsock2.h has to come before anything that includes windows.h.
#include <winsock2.h>
#include <ws2tcpip.h>

#include "TansyNet/transport/SystemSockets.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>

#pragma comment(lib, "ws2_32.lib")

namespace TansyNet::details {

namespace {

// Larger writes gain nothing and would hide progress from the send time-out.
constexpr std::size_t kWriteLimit = std::size_t{4} << 20;

// Winsock must be started before its other calls work, and counts how often that was done.
void StartSockets() {
  static const int started = [] {
    WSADATA data{};
    return ::WSAStartup(MAKEWORD(2, 2), &data);
  }();
  static_cast<void>(started);
}

IoResult Failed(int error, IoStatus would_block) {
  if (error == WSAEWOULDBLOCK || error == WSAEINTR) {
    return {.status = would_block};
  }
  return {.status = IoStatus::kFailed, .error = error};
}

WSABUF Piece(std::string_view text) {
  return {static_cast<ULONG>(std::min(text.size(), kWriteLimit)), const_cast<char*>(text.data())};
}

}  // namespace

// The calls are the same as in the POSIX file, but the headers that declare them differ, so the code stands twice.
int LookUpAddresses(const std::string& host, std::uint16_t port, bool numeric, std::vector<SocketAddress>& addresses) {
  StartSockets();
  addresses.clear();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
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
  return ::gai_strerrorA(error);
}

SocketHandle OpenSocket(const SocketAddress& address, int& error) {
  StartSockets();
  sockaddr_storage storage{};
  std::memcpy(&storage, address.bytes.data(), static_cast<std::size_t>(address.size));
  const SOCKET handle = ::WSASocketW(storage.ss_family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                                     WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (handle == INVALID_SOCKET) {
    error = ::WSAGetLastError();
    return kNoSocket;
  }
  u_long non_blocking = 1;
  ::ioctlsocket(handle, FIONBIO, &non_blocking);
  // Requests are written whole, so waiting for more bytes would only delay them.
  const BOOL on = TRUE;
  ::setsockopt(handle, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
  return static_cast<SocketHandle>(handle);
}

void CloseSocket(SocketHandle socket) {
  ::closesocket(static_cast<SOCKET>(socket));
}

void KeepFromChildren(SocketHandle socket) {
  ::SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0);
}

bool NameListener(SocketHandle /*socket*/, ListenerName& /*name*/) {
  return false;
}

SocketHandle CopySocket(SocketHandle /*socket*/) {
  return kNoSocket;
}

int StartConnect(SocketHandle socket, const SocketAddress& address) {
  sockaddr_storage storage{};
  std::memcpy(&storage, address.bytes.data(), static_cast<std::size_t>(address.size));
  const auto* const plain = reinterpret_cast<const sockaddr*>(&storage);
  return ::connect(static_cast<SOCKET>(socket), plain, address.size) == 0 ? 0 : ::WSAGetLastError();
}

bool ConnectGoesOn(int error) {
  return error == WSAEWOULDBLOCK;
}

int PendingError(SocketHandle socket) {
  int error = 0;
  int size = sizeof error;
  char* const place = reinterpret_cast<char*>(&error);
  const bool known = ::getsockopt(static_cast<SOCKET>(socket), SOL_SOCKET, SO_ERROR, place, &size) == 0;
  return known ? error : ::WSAGetLastError();
}

IoResult ReceiveBytes(SocketHandle socket, char* data, std::size_t size) {
  const int got = ::recv(static_cast<SOCKET>(socket), data, static_cast<int>(std::min(size, kWriteLimit)), 0);
  if (got < 0) {
    return Failed(::WSAGetLastError(), IoStatus::kWantRead);
  }
  return {.status = got > 0 ? IoStatus::kDone : IoStatus::kEnd, .bytes = static_cast<std::size_t>(got)};
}

IoResult SendBytes(SocketHandle socket, std::string_view first, std::string_view second) {
  std::array<WSABUF, 2> pieces{Piece(first), Piece(second)};
  DWORD sent = 0;
  const int result = ::WSASend(static_cast<SOCKET>(socket), pieces.data(), static_cast<DWORD>(pieces.size()), &sent, 0,
                               nullptr, nullptr);
  if (result == 0 && sent > 0) {
    return {.status = IoStatus::kDone, .bytes = static_cast<std::size_t>(sent)};
  }
  return Failed(result == 0 ? WSAEWOULDBLOCK : ::WSAGetLastError(), IoStatus::kWantWrite);
}

bool WaitForSocket(SocketHandle socket, bool for_read, bool for_write, int timeout_ms) {
  WSAPOLLFD entry{};
  entry.fd = static_cast<SOCKET>(socket);
  entry.events = static_cast<SHORT>((for_read ? POLLRDNORM : 0) | (for_write ? POLLWRNORM : 0));
  return ::WSAPoll(&entry, 1, timeout_ms) != 0;
}

// Sockets are limited by memory alone.
std::uint32_t MostOpenSockets() {
  return std::numeric_limits<std::uint32_t>::max();
}

int TimedOutError() {
  return WSAETIMEDOUT;
}

int ConnectionResetError() {
  return WSAECONNRESET;
}

bool IsClosedByPeer(int error) {
  return error == WSAECONNRESET || error == WSAECONNABORTED || error == WSAESHUTDOWN || error == WSAENOTCONN;
}

}  // namespace TansyNet::details
