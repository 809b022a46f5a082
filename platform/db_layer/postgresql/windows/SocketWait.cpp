#include "db_layer/postgresql/SocketWait.h"

#include <winsock2.h>

namespace db_layer {

ESocket WaitForSocket(int socket, bool also_write, std::chrono::milliseconds patience) {
  WSAPOLLFD item = {static_cast<SOCKET>(socket), static_cast<SHORT>(also_write ? POLLIN | POLLOUT : POLLIN), 0};
  const int result = WSAPoll(&item, 1, static_cast<INT>(patience.count()));
  if (result == 0) {
    return ESocket::kTimedOut;
  }
  const bool only_writable = result > 0 && (item.revents & ~POLLOUT) == 0;
  return only_writable ? ESocket::kWritable : ESocket::kReadable;
}

}  // namespace db_layer
