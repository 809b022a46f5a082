#ifndef TANSY_TESTS_WINDOWS_POLL_H
#define TANSY_TESTS_WINDOWS_POLL_H

#include <sys/socket.h>

inline int poll(pollfd* entries, std::size_t count, int timeout_ms) {
  return WSAPoll(entries, static_cast<ULONG>(count), timeout_ms);
}

#endif  // TANSY_TESTS_WINDOWS_POLL_H
