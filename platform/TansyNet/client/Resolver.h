// Looks names up with a time-out, which the system's resolver does not offer.
#ifndef TANSY_NET_CLIENT_RESOLVER_H
#define TANSY_NET_CLIENT_RESOLVER_H

#include <cstdint>
#include <string>
#include <vector>

#include "TansyNet/client/ClientError.h"
#include "TansyNet/transport/SystemSockets.h"

namespace TansyNet::details {

// Gives the addresses of a host within the time-out (negative: no limit). A look-up that takes longer is left to a
// thread that ends when the system's resolver gives up; at most 16 such threads exist. Threads: any.
bool ResolveWithin(const std::string& host, std::uint16_t port, int timeout_ms, std::vector<SocketAddress>& addresses,
                   ClientError& error);

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_RESOLVER_H
