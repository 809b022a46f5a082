// The client's TCP socket. It blocks only in calls that wait, and never longer than the given time.
#ifndef TANSY_NET_CLIENT_CLIENT_SOCKET_H
#define TANSY_NET_CLIENT_CLIENT_SOCKET_H

#include <cstddef>
#include <string_view>
#include <vector>

#include "TansyNet/transport/Socket.h"
#include "TansyNet/transport/SystemSockets.h"

namespace TansyNet::details {

// Threads: one at a time. A closed socket answers every call with a failure.
class CClientSocket final : public ISocket {
 public:
  CClientSocket() = default;
  ~CClientSocket() override;
  CClientSocket(const CClientSocket&) = delete;
  CClientSocket& operator=(const CClientSocket&) = delete;

  // Returns 0, the system's error number, or TimedOutError().
  int Connect(const SocketAddress& address, int timeout_ms);
  void Close();

  IoResult Read(char* data, std::size_t size) override;
  IoResult Write(std::string_view first, std::string_view second) override;

  // Waits as WaitForSocket does.
  bool Wait(bool for_read, bool for_write, int timeout_ms);

 private:
  SocketHandle handle_ = kNoSocket;
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_CLIENT_SOCKET_H
