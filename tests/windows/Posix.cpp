// winsock2.h has to come before windows.h.
// clang-format off
#include "sys/socket.h"
// clang-format on

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

// Winsock must be started before its calls work.
const int started = [] {
  WSADATA data{};
  return WSAStartup(MAKEWORD(2, 2), &data);
}();

bool IsSocket(int handle) {
  int kind = 0;
  int size = sizeof kind;
  return ::getsockopt(static_cast<SOCKET>(handle), SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&kind), &size) == 0;
}

bool ConnectPair(SOCKET listener, int ends[2]) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int size = sizeof address;
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  if (bind(listener, plain, size) != 0 || listen(listener, 1) != 0 || getsockname(listener, plain, &size) != 0) {
    return false;
  }
  const SOCKET writer = socket(AF_INET, SOCK_STREAM, 0);
  if (connect(writer, plain, size) != 0) {
    closesocket(writer);
    return false;
  }
  ends[0] = static_cast<int>(accept(listener, nullptr, nullptr));
  ends[1] = static_cast<int>(writer);
  return true;
}

}  // namespace

namespace tansy_posix {

int ErrnoOf(int error) {
  switch (error) {
    case WSAEWOULDBLOCK:
      return EAGAIN;
    case WSAECONNREFUSED:
      return ECONNREFUSED;
    case WSAECONNRESET:
    case WSAECONNABORTED:
      return ECONNRESET;
    case WSAEADDRINUSE:
      return EADDRINUSE;
    case WSAETIMEDOUT:
      return ETIMEDOUT;
    default:
      return EIO;
  }
}

long long Transferred(int result) {
  if (result < 0) {
    errno = ErrnoOf(WSAGetLastError());
  }
  return result;
}

}  // namespace tansy_posix

extern "C" {

// Stands in for the C library's, which does not know sockets.
int close(int handle) {
  return IsSocket(handle) ? closesocket(static_cast<SOCKET>(handle)) : _close(handle);
}

char* mkdtemp(char* pattern) {
  char* const end = pattern + strlen(pattern);
  std::random_device random;
  for (int tries = 0; tries < 100; ++tries) {
    std::generate(end - 6, end, [&] { return "abcdefghijklmnopqrstuvwxyz0123456789"[random() % 36]; });
    if (std::error_code error; std::filesystem::create_directory(pattern, error)) {
      return pattern;
    }
  }
  return nullptr;
}

int setenv(const char* name, const char* value, int /*overwrite*/) {
  SetEnvironmentVariableA(name, value);
  return _putenv_s(name, value);
}

int unsetenv(const char* name) {
  SetEnvironmentVariableA(name, nullptr);
  return _putenv_s(name, "");
}

int gettid() {
  return static_cast<int>(GetCurrentThreadId());
}

int pipe(int ends[2]) {
  const SOCKET listener = socket(AF_INET, SOCK_STREAM, 0);
  const bool is_made = ConnectPair(listener, ends);
  closesocket(listener);
  return is_made ? 0 : -1;
}

int fcntl(int handle, int command, ...) {
  const HANDLE object = IsSocket(handle) ? reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(handle))
                                         : reinterpret_cast<HANDLE>(_get_osfhandle(handle));
  DWORD flags = 0;
  if (command != F_GETFD || !GetHandleInformation(object, &flags)) {
    errno = command != F_GETFD ? ENOSYS : EBADF;
    return -1;
  }
  return (flags & HANDLE_FLAG_INHERIT) != 0 ? 0 : FD_CLOEXEC;
}
}
