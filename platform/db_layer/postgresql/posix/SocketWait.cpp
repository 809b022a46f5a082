#include "db_layer/postgresql/SocketWait.h"

#include <poll.h>

#include <cerrno>

namespace db_layer {

ESocket WaitForSocket(int socket, bool also_write, std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd item = {socket, static_cast<short>(also_write ? POLLIN | POLLOUT : POLLIN), 0};
    const int result = poll(&item, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    if (result < 0 && errno == EINTR) {
      continue;
    }
    if (result == 0) {
      return ESocket::kTimedOut;
    }
    const bool only_writable = result > 0 && (item.revents & ~POLLOUT) == 0;
    return only_writable ? ESocket::kWritable : ESocket::kReadable;
  }
}

}  // namespace db_layer
