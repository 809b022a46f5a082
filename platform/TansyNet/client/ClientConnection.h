// One connection of the client, plain or secure, with the bytes that were read but not used yet.
#ifndef TANSY_NET_CLIENT_CLIENT_CONNECTION_H
#define TANSY_NET_CLIENT_CLIENT_CONNECTION_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "TansyNet/client/ClientError.h"
#include "TansyNet/client/ClientSocket.h"
#include "TansyNet/client/ClientTls.h"
#include "TansyNet/wire/Url.h"

namespace TansyNet::details {

// The largest head of an answer, in bytes, which is also the size of a connection's input buffer.
inline constexpr std::size_t kMaxHeadBytes = std::size_t{64} * 1024;

// Converts a time-out to the form that waits take; 0 means without limit.
int WaitTime(std::uint32_t timeout_ms);

// Connects to the first of the addresses that answers. Returns 0 or the error number of the last address. Each address
// gets its share of the time (negative: no limit).
int ConnectToAny(CClientSocket& socket, const std::vector<SocketAddress>& addresses, int timeout_ms);

// Threads: one at a time.
class CClientConnection {
 public:
  // Looks the name up, connects and, for https, shakes hands, all within the time-out. Returns null on failure.
  static std::unique_ptr<CClientConnection> Open(const URL& url, std::uint32_t timeout_ms, ClientError& error);
  ~CClientConnection();
  CClientConnection(const CClientConnection&) = delete;
  CClientConnection& operator=(const CClientConnection&) = delete;

  // These do not wait. Reading gives fresh bytes of the peer, not those of the buffer.
  IoResult TryRead(char* data, std::size_t size);
  IoResult TryWrite(std::string_view first, std::string_view second);
  bool Wait(bool for_read, bool for_write, int timeout_ms);
  // Waits for bytes, the end or a failure. When the time has passed, the result is kFailed with TimedOutError().
  IoResult Read(char* data, std::size_t size, int timeout_ms);

  // The input buffer holds bytes that were read but not consumed yet.
  std::string_view Buffered() const { return {buffer_.data() + begin_, end_ - begin_}; }
  void Consume(std::size_t bytes);
  // Reads more into the buffer and waits as Read does. The result is kDone with 0 bytes when the buffer is full.
  IoResult Fill(int timeout_ms);
  // Does the same without waiting.
  IoResult TryFill();

  // Returns false when the peer has closed the connection or sent something that was not requested.
  bool IsAlive();

  // Says under which trust settings the connection was opened.
  std::uint64_t trust_generation() const { return trust_generation_; }

 private:
  CClientConnection();
  bool Connect(const URL& url, int timeout_ms, ClientError& error);
  bool MakeRoom();

  CClientSocket socket_;
  std::unique_ptr<CClientTls> tls_;  // null for http
  std::uint64_t trust_generation_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_CLIENT_CONNECTION_H
