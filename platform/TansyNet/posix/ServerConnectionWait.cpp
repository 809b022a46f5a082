#include <poll.h>

#include <cerrno>

#include "TansyNet/ServerConnectionSocket.h"

namespace TansyNet {

bool WaitWritable(std::intptr_t native_handle, int timeout_ms) {
  pollfd entry{.fd = static_cast<int>(native_handle), .events = POLLOUT, .revents = 0};
  const int ready = poll(&entry, 1, timeout_ms);
  // An interrupted wait counts as ready: the caller tries to write and comes back.
  return ready > 0 || (ready < 0 && errno == EINTR);
}

}  // namespace TansyNet
