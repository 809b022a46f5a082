// The result of one attempt to move bytes, on sockets and on the layers above them.
#ifndef TANSY_NET_TRANSPORT_IO_RESULT_H
#define TANSY_NET_TRANSPORT_IO_RESULT_H

#include <cstddef>

namespace TansyNet {

enum class IoStatus {
  kDone,       // some bytes were moved
  kWantRead,   // nothing was moved; try again when the socket is readable
  kWantWrite,  // nothing was moved; try again when the socket is writable
  kEnd,        // the peer sends no more
  kFailed,     // the connection cannot be used any more
};

struct IoResult {
  IoStatus status = IoStatus::kFailed;
  std::size_t bytes = 0;
  int error = 0;           // with kFailed: the number of the system or the TLS library, 0 when there is none
  bool truncated = false;  // with kEnd: an encrypted connection ended without announcing its end

  // Returns true when nothing can be moved now and the caller has to wait for the socket.
  bool MustWait() const { return status == IoStatus::kWantRead || status == IoStatus::kWantWrite; }
};

}  // namespace TansyNet

#endif  // TANSY_NET_TRANSPORT_IO_RESULT_H
