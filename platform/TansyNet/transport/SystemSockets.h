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

// An address in the system's own form.
struct SocketAddress {
  alignas(8) std::array<unsigned char, 128> bytes{};
  int size = 0;
};

// The addresses of a name or a numeric address, in the system's order. 0 or the resolver's error number. Blocks as long
// as the system's resolver does; numeric addresses are converted without asking anybody.
int ResolveAddresses(const std::string& host, std::uint16_t port, std::vector<SocketAddress>& addresses);
bool IsNumericAddress(const std::string& host);
// One step of the two above: `numeric` asks nobody and fails for names.
int LookUpAddresses(const std::string& host, std::uint16_t port, bool numeric, std::vector<SocketAddress>& addresses);
// One line for a number that the functions above returned.
std::string ResolveErrorText(int error);

// The number of a socket, and the value that is none.
using SocketHandle = std::intptr_t;
inline constexpr SocketHandle kNoSocket = -1;

// A TCP socket for connections to `address` that never blocks, sends without delay and is not inherited by child
// processes. kNoSocket on failure, with the system's number in `error`.
SocketHandle OpenSocket(const SocketAddress& address, int& error);
void CloseSocket(SocketHandle socket);
// Keeps a socket that somebody else opened from child processes.
void KeepFromChildren(SocketHandle socket);
// 0 when the connection is there at once; ConnectGoesOn tells the number that means "later" from failures.
int StartConnect(SocketHandle socket, const SocketAddress& address);
bool ConnectGoesOn(int error);
// What a connection that was waited for came to: 0 or the system's number.
int PendingError(SocketHandle socket);

IoResult ReceiveBytes(SocketHandle socket, char* data, std::size_t size);
// Both pieces in one call of the system. A peer that is gone is a failure to report, never a signal.
IoResult SendBytes(SocketHandle socket, std::string_view first, std::string_view second);

// Waits until the socket can be read or written, whichever was asked for, or has failed. False when the time has passed
// first. A negative time waits without limit. Any thread, also while another one uses the socket.
bool WaitForSocket(SocketHandle socket, bool for_read, bool for_write, int timeout_ms);

// How many sockets and files the process may have open together.
std::uint32_t MostOpenSockets();

// The system's numbers for "took too long" and "cut by the peer".
int TimedOutError();
int ConnectionResetError();
// True for the numbers that say that the peer has closed or cut the connection.
bool IsClosedByPeer(int error);

}  // namespace TansyNet::details

#endif  // TANSY_NET_TRANSPORT_SYSTEM_SOCKETS_H
