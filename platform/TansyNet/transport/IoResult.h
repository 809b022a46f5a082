// What one attempt to move bytes came to, on sockets and on what lies over them.
#ifndef TANSY_NET_TRANSPORT_IO_RESULT_H
#define TANSY_NET_TRANSPORT_IO_RESULT_H

#include <cstddef>

namespace TansyNet {

enum class IoStatus {
  kDone,       // some bytes were moved
  kWantRead,   // nothing now; again when the socket is readable
  kWantWrite,  // nothing now; again when the socket is writable
  kEnd,        // the peer sends no more
  kFailed,     // the connection is of no more use
};

struct IoResult {
  IoStatus status = IoStatus::kFailed;
  std::size_t bytes = 0;
  int error = 0;           // of kFailed: the number that the system or the TLS library has for it, 0 when it has none
  bool truncated = false;  // of kEnd: an encrypted connection ended without saying so

  // Nothing can be moved now; wait for the socket first.
  bool MustWait() const { return status == IoStatus::kWantRead || status == IoStatus::kWantWrite; }
};

}  // namespace TansyNet

#endif  // TANSY_NET_TRANSPORT_IO_RESULT_H
