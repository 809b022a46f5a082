// The server's TCP socket, without Asio in its header.
#ifndef TANSY_NET_SERVER_SERVER_SOCKET_H
#define TANSY_NET_SERVER_SERVER_SOCKET_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "TansyNet/transport/Socket.h"
#include "TansyNet/transport/SystemSockets.h"

namespace TansyNet {

struct AcceptedSocket;

// Is told that a socket is ready. It is called on the thread of the socket's worker, also after CServerSocket::Stop.
class ISocketEvents {
 public:
  virtual ~ISocketEvents() = default;
  virtual void OnReadable() = 0;
  virtual void OnWritable() = 0;
};

// Threads: one call at a time, which the owner's lock ensures. Only the destructor closes the socket, so that its
// number cannot be given to another connection while a thread still waits for it.
class CServerSocket final : public ISocket {
 public:
  // Returns null when the peer is gone already.
  static std::unique_ptr<CServerSocket> Create(AcceptedSocket accepted);
  ~CServerSocket() override;
  CServerSocket(const CServerSocket&) = delete;
  CServerSocket& operator=(const CServerSocket&) = delete;

  const std::string& PeerAddress() const { return peer_; }

  IoResult Read(char* data, std::size_t size) override;
  // Looks whether bytes are there, without taking them.
  IoResult Peek();
  IoResult Write(std::string_view first, std::string_view second) override;

  // Tells the owner once, as soon as the socket is ready, closed or stopped. The owner is kept alive until then.
  void WatchReadable(std::shared_ptr<ISocketEvents> owner);
  void WatchWritable(std::shared_ptr<ISocketEvents> owner);

  // Ends the sending direction, which the peer sees as the end.
  void ShutdownSend();
  // Ends both directions and the watches, and wakes a thread in WaitForSocket.
  void Stop();

  details::SocketHandle NativeHandle() const;

 private:
  CServerSocket(std::unique_ptr<AcceptedSocket> accepted, std::string peer);

  const std::unique_ptr<AcceptedSocket> accepted_;
  const std::string peer_;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_SERVER_SOCKET_H
