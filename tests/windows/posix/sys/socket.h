// Winsock under the names of POSIX. Descriptors are `int`, which every handle of a socket fits into.
#ifndef TANSY_TESTS_WINDOWS_SYS_SOCKET_H
#define TANSY_TESTS_WINDOWS_SYS_SOCKET_H

#define WIN32_LEAN_AND_MEAN
#define NOGDI
#include <winsock2.h>
#include <ws2tcpip.h>

#include <sys/time.h>

#include <cstddef>

// Macros of the system's headers that are names in ours.
#undef GetMessage
#undef DeleteFile
#undef CreateFile
#undef MoveFile
#undef CreateDirectory
#undef RemoveDirectory
#undef DELETE
#undef ERROR
#undef interface
#undef small

#define SHUT_RD SD_RECEIVE
#define SHUT_WR SD_SEND
#define SHUT_RDWR SD_BOTH
#define SOCK_CLOEXEC 0
#define SOCK_NONBLOCK 0  // sockets of tests wait here
#define MSG_NOSIGNAL 0
#define MSG_DONTWAIT 0x4000000

namespace tansy_posix {

int ErrnoOf(int error);
// Sets errno after a failure.
long long Transferred(int result);

}  // namespace tansy_posix

inline int accept4(int listener, sockaddr* address, socklen_t* size, int /*flags*/) {
  return static_cast<int>(accept(static_cast<SOCKET>(listener), address, size));
}

inline int setsockopt(int handle, int level, int option, const void* value, std::size_t size) {
  const SOCKET socket = static_cast<SOCKET>(handle);
  if (level == SOL_SOCKET && (option == SO_RCVTIMEO || option == SO_SNDTIMEO)) {
    const auto* const time = static_cast<const timeval*>(value);
    const DWORD milliseconds = static_cast<DWORD>(time->tv_sec * 1000 + time->tv_usec / 1000);
    return setsockopt(socket, level, option, reinterpret_cast<const char*>(&milliseconds),
                      static_cast<int>(sizeof milliseconds));
  }
  return setsockopt(socket, level, option, static_cast<const char*>(value), static_cast<int>(size));
}

inline int getsockopt(int handle, int level, int option, void* value, socklen_t* size) {
  return getsockopt(static_cast<SOCKET>(handle), level, option, static_cast<char*>(value), size);
}

inline long long send(int handle, const void* data, std::size_t size, int flags) {
  const SOCKET socket = static_cast<SOCKET>(handle);
  u_long non_blocking = (flags & MSG_DONTWAIT) != 0 ? 1 : 0;
  if (non_blocking == 0) {
    return tansy_posix::Transferred(send(socket, static_cast<const char*>(data), static_cast<int>(size), flags));
  }
  ioctlsocket(socket, FIONBIO, &non_blocking);
  const long long sent = tansy_posix::Transferred(
      send(socket, static_cast<const char*>(data), static_cast<int>(size), flags & ~MSG_DONTWAIT));
  non_blocking = 0;
  ioctlsocket(socket, FIONBIO, &non_blocking);
  return sent;
}

inline long long recv(int handle, void* data, std::size_t size, int flags) {
  return tansy_posix::Transferred(
      recv(static_cast<SOCKET>(handle), static_cast<char*>(data), static_cast<int>(size), flags));
}

// Winsock's own calls take texts, so without these a call with a text would fit them as well as those above.
inline long long send(int handle, const char* text, std::size_t size, int flags) {
  return send(handle, static_cast<const void*>(text), size, flags);
}

inline long long recv(int handle, char* text, std::size_t size, int flags) {
  return recv(handle, static_cast<void*>(text), size, flags);
}

#endif  // TANSY_TESTS_WINDOWS_SYS_SOCKET_H
