#include "TansyNet/transport/SystemSockets.h"

namespace TansyNet::details {

int ResolveAddresses(const std::string& host, std::uint16_t port, std::vector<SocketAddress>& addresses) {
  return LookUpAddresses(host, port, true, addresses) == 0 ? 0 : LookUpAddresses(host, port, false, addresses);
}

bool IsNumericAddress(const std::string& host) {
  std::vector<SocketAddress> addresses;
  return LookUpAddresses(host, 0, true, addresses) == 0;
}

}  // namespace TansyNet::details
