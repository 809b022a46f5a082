// Says whether connections over "::1" work on this machine. In containers they often do not; a test that needs them is
// skipped there, with kNoIpv6Loopback as its reason.
#ifndef TANSY_TESTS_FAKES_IPV6_LOOPBACK_H
#define TANSY_TESTS_FAKES_IPV6_LOOPBACK_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Tansy::Tests {

inline constexpr const char* kNoIpv6Loopback = "this machine has no ::1";

inline bool HasIpv6Loopback() {
  const int descriptor = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) {
    return false;
  }
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  const bool bound = ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  ::close(descriptor);
  return bound;
}

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_IPV6_LOOPBACK_H
