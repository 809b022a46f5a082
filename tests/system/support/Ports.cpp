#include "support/Ports.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <stdexcept>

namespace system_tests {
namespace {

constexpr std::uint16_t kLowest = 20000;
constexpr std::uint16_t kHighest = 31999;

// The socket, or -1.
int Bind(int family, std::uint16_t port) {
  const int descriptor = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) {
    return -1;
  }
  const int on = 1;
  ::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in6 ipv6 = {};
  sockaddr_in ipv4 = {};
  int result = -1;
  if (family == AF_INET6) {
    ::setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(port);
    result = ::bind(descriptor, reinterpret_cast<const sockaddr*>(&ipv6), sizeof ipv6);
  } else {
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(port);
    result = ::bind(descriptor, reinterpret_cast<const sockaddr*>(&ipv4), sizeof ipv4);
  }
  if (result != 0 || ::listen(descriptor, 1) != 0) {
    ::close(descriptor);
    return -1;
  }
  return descriptor;
}

bool IsFree(std::uint16_t port) {
  const int ipv4 = Bind(AF_INET, port);
  if (ipv4 < 0) {
    return false;
  }
  const int ipv6 = Bind(AF_INET6, port);
  const bool has_ipv6 = ipv6 >= 0 || errno != EAFNOSUPPORT;
  ::close(ipv4);
  if (ipv6 >= 0) {
    ::close(ipv6);
  }
  return ipv6 >= 0 || !has_ipv6;
}

}  // namespace

std::vector<std::uint16_t> FreePorts(std::size_t count) {
  std::random_device device;
  std::uniform_int_distribution<int> distribution(kLowest, kHighest);
  std::vector<std::uint16_t> ports;
  for (int tries = 0; tries < 10000 && ports.size() < count; ++tries) {
    const auto port = static_cast<std::uint16_t>(distribution(device));
    if (std::find(ports.begin(), ports.end(), port) == ports.end() && IsFree(port)) {
      ports.push_back(port);
    }
  }
  if (ports.size() < count) {
    throw std::runtime_error("no free ports");
  }
  return ports;
}

CTakenPort::CTakenPort(std::uint16_t port) : socket_(Bind(AF_INET, port)) {
  if (socket_ < 0) {
    throw std::runtime_error("the port is taken by somebody else");
  }
}

CTakenPort::~CTakenPort() {
  ::close(socket_);
}

}  // namespace system_tests
