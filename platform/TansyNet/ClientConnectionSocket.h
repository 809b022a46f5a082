// A TCP socket of the client that never blocks except where it is asked to wait, and then not longer than told. The
// operating system's calls are in posix/ and windows/.
#ifndef TANSY_NET_CLIENT_CONNECTION_SOCKET_H
#define TANSY_NET_CLIENT_CONNECTION_SOCKET_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace TansyNet::details {

// What one attempt to move bytes came to.
struct IoResult {
  enum class Status {
    kDone,    // `bytes` (more than 0) were moved
    kAgain,   // nothing can be moved now; wait first
    kEnd,     // the peer will send nothing more
    kFailed,  // `error` says why; the connection is unusable
  };
  Status status = Status::kFailed;
  std::size_t bytes = 0;
  int error = 0;           // the system's number
  bool truncated = false;  // of kEnd: a secure connection ended without saying so
};

// An address in the system's own form.
struct SocketAddress {
  alignas(8) std::array<unsigned char, 128> bytes{};
  int size = 0;
};

// The addresses of a name or a numeric address, in the system's order. 0 or the resolver's error number. Blocks as long
// as the system's resolver does; numeric addresses are converted without asking anybody.
int ResolveAddresses(const std::string& host, std::uint16_t port, std::vector<SocketAddress>& addresses);
bool IsNumericAddress(const std::string& host);
// One line for a number that ResolveAddresses returned.
std::string ResolveErrorText(int error);

// One thread at a time. A closed socket answers every call with a failure.
class CClientSocket {
 public:
  CClientSocket() = default;
  ~CClientSocket();
  CClientSocket(const CClientSocket&) = delete;
  CClientSocket& operator=(const CClientSocket&) = delete;

  // 0, the system's error number, or TimedOut().
  int Connect(const SocketAddress& address, int timeout_ms);
  void Close();

  IoResult Read(char* data, std::size_t size);
  // Both pieces in one call of the system; either may be empty, not both.
  IoResult Write(std::string_view first, std::string_view second);

  // Waits until the socket can be read or written, whichever was asked for, or has failed. False when the time has
  // passed first. A negative time waits without limit.
  bool Wait(bool for_read, bool for_write, int timeout_ms);

  // The system's numbers for "took too long" and "cut by the peer".
  static int TimedOut();
  static int ConnectionReset();
  // True for the numbers that say that the peer has closed or cut the connection.
  static bool IsClosedByPeer(int error);

 private:
  int StartConnect(const SocketAddress& address);
  int PendingError();

  static constexpr std::intptr_t kClosed = -1;
  std::intptr_t handle_ = kClosed;
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_CONNECTION_SOCKET_H
