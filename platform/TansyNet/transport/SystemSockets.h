// The operating system's calls for sockets and addresses. Those that differ between systems are in posix/ and windows/.
#ifndef TANSY_NET_TRANSPORT_SYSTEM_SOCKETS_H
#define TANSY_NET_TRANSPORT_SYSTEM_SOCKETS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "TansyNet/transport/IoResult.h"

namespace TansyNet::details {

// An address in the form that the system uses.
struct SocketAddress {
  alignas(8) std::array<unsigned char, 128> bytes{};
  int size = 0;
};

// Gives the addresses of a name or of a numeric address, in the system's order. Returns 0 or the resolver's error
// number. It blocks as long as the system's resolver does; numeric addresses are converted without a query.
int ResolveAddresses(const std::string& host, std::uint16_t port, std::vector<SocketAddress>& addresses);
bool IsNumericAddress(const std::string& host);
// Does one step of ResolveAddresses: with `numeric` it makes no query and fails for names.
int LookUpAddresses(const std::string& host, std::uint16_t port, bool numeric, std::vector<SocketAddress>& addresses);
// Describes in one line a number that the functions above returned.
std::string ResolveErrorText(int error);

// The number of a socket, and the value that means "no socket".
using SocketHandle = std::intptr_t;
inline constexpr SocketHandle kNoSocket = -1;

// Opens a TCP socket for connections to `address`. It never blocks, sends without delay and is not inherited by child
// processes. Returns kNoSocket on failure, with the system's number in `error`.
SocketHandle OpenSocket(const SocketAddress& address, int& error);
void CloseSocket(SocketHandle socket);
// Keeps child processes from inheriting a socket that was opened elsewhere.
void KeepFromChildren(SocketHandle socket);

// Where a listening socket listens.
struct ListenerName {
  std::string address;  // numeric
  std::uint16_t port = 0;
  bool takes_ipv4_too = false;  // one of IPv6 that is not for IPv6 alone
};
// Returns false for a socket that does not listen for TCP, and on systems where nobody hands such sockets over.
bool NameListener(SocketHandle socket, ListenerName& name);
// Gives one more number for the same socket, or kNoSocket.
SocketHandle CopySocket(SocketHandle socket);

// Returns 0 when the connection is there at once; ConnectGoesOn tells the number that means "later" from failures.
int StartConnect(SocketHandle socket, const SocketAddress& address);
bool ConnectGoesOn(int error);
// Gives the result of a connection that was waited for: 0 or the system's number.
int PendingError(SocketHandle socket);

IoResult ReceiveBytes(SocketHandle socket, char* data, std::size_t size);
// Writes both pieces with one system call. When the peer is gone, that is a reported failure and never a signal.
IoResult SendBytes(SocketHandle socket, std::string_view first, std::string_view second);

// Waits until the socket can be read or written, as asked for, or has failed. Returns false when the time has passed
// first. A negative time waits without limit. Threads: any, also while another thread uses the socket.
bool WaitForSocket(SocketHandle socket, bool for_read, bool for_write, int timeout_ms);

// Says how many sockets and files together the process may have open.
std::uint32_t MostOpenSockets();

// These give the system's numbers for "took too long" and "cut by the peer".
int TimedOutError();
int ConnectionResetError();
// Returns true for the numbers that say that the peer has closed or cut the connection.
bool IsClosedByPeer(int error);

}  // namespace TansyNet::details

#endif  // TANSY_NET_TRANSPORT_SYSTEM_SOCKETS_H
