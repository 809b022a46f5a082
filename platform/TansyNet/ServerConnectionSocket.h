// A connected TCP socket that never blocks, without Asio in its header.
#ifndef TANSY_NET_SERVER_CONNECTION_SOCKET_H
#define TANSY_NET_SERVER_CONNECTION_SOCKET_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

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
};

// Whoever is told that a socket is ready. Called on the thread of the socket's worker, also after CServerSocket::Stop.
class ISocketEvents {
 public:
  virtual ~ISocketEvents() = default;
  virtual void OnReadable() = 0;
  virtual void OnWritable() = 0;
};

// Threads: one call at a time; the owner's lock sees to that. The socket is closed by the destructor only, so that its
// number cannot be given to another connection while a thread still waits for it.
class CServerSocket {
 public:
  struct Impl;
  explicit CServerSocket(std::unique_ptr<Impl> impl);
  ~CServerSocket();
  CServerSocket(const CServerSocket&) = delete;
  CServerSocket& operator=(const CServerSocket&) = delete;

  const std::string& PeerAddress() const;

  IoResult Receive(char* data, std::size_t size);
  // Looks whether anything is there without taking it.
  IoResult Peek();
  // Both pieces in one system call.
  IoResult Send(std::string_view first, std::string_view second = {});

  // Tells the owner once, as soon as the socket is ready, closed or stopped. The owner lives until then.
  void WatchReadable(std::shared_ptr<ISocketEvents> owner);
  void WatchWritable(std::shared_ptr<ISocketEvents> owner);

  // No more bytes go out; the peer sees the end.
  void ShutdownSend();
  // Ends both directions and the watches, and wakes a thread in WaitWritable.
  void Stop();

  std::intptr_t NativeHandle() const;

 private:
  std::unique_ptr<Impl> impl_;
};

// Waits until the socket takes bytes, is closed, or the time is over; false in the last case. Any thread, without the
// owner's lock.
bool WaitWritable(std::intptr_t native_handle, int timeout_ms);

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_CONNECTION_SOCKET_H
