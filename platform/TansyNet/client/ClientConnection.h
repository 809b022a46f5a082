// One connection of the client, plain or secure, with the bytes that were read and not used yet.
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

// Head of an answer, in bytes; also the size of a connection's input buffer.
inline constexpr std::size_t kMaxHeadBytes = std::size_t{64} * 1024;

// A time-out in the form that waits take; 0 means without limit.
int WaitTime(std::uint32_t timeout_ms);

// Connects to the first of the addresses that answers; 0 or the last one's error number. Each of them gets its share of
// the time (negative: no limit).
int ConnectToAny(CClientSocket& socket, const std::vector<SocketAddress>& addresses, int timeout_ms);

// One thread at a time.
class CClientConnection {
 public:
  // Looks the name up, connects and, for https, shakes hands, all within the time-out. Null on failure.
  static std::unique_ptr<CClientConnection> Open(const URL& url, std::uint32_t timeout_ms, ClientError& error);
  ~CClientConnection();
  CClientConnection(const CClientConnection&) = delete;
  CClientConnection& operator=(const CClientConnection&) = delete;

  // Attempts that do not wait. Reading gives fresh bytes of the peer, not those of the buffer.
  IoResult TryRead(char* data, std::size_t size);
  IoResult TryWrite(std::string_view first, std::string_view second);
  bool Wait(bool for_read, bool for_write, int timeout_ms);
  // Waits for bytes, the end or a failure; kFailed with TimedOutError() when the time has passed.
  IoResult Read(char* data, std::size_t size, int timeout_ms);

  // The input buffer: bytes read and not consumed yet.
  std::string_view Buffered() const { return {buffer_.data() + begin_, end_ - begin_}; }
  void Consume(std::size_t bytes);
  // Reads more into the buffer, waiting as Read does. kDone with 0 bytes when it is full.
  IoResult Fill(int timeout_ms);
  // The same without waiting.
  IoResult TryFill();

  // False when the peer has closed the connection or sent something that nobody asked for.
  bool IsAlive();

  // Which trust settings it was opened under.
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
