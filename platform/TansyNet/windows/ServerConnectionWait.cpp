#include <winsock2.h>

#include "TansyNet/ServerConnectionSocket.h"

namespace TansyNet {

bool WaitWritable(std::intptr_t native_handle, int timeout_ms) {
  WSAPOLLFD entry{};
  entry.fd = static_cast<SOCKET>(native_handle);
  entry.events = POLLWRNORM;
  return WSAPoll(&entry, 1, timeout_ms) > 0;
}

}  // namespace TansyNet
