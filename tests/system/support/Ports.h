#ifndef TANSY_TESTS_SYSTEM_SUPPORT_PORTS_H
#define TANSY_TESTS_SYSTEM_SUPPORT_PORTS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace system_tests {

// Different ports that nobody listens on now, below the range that the system gives to outgoing connections.
std::vector<std::uint16_t> FreePorts(std::size_t count);

// Holds a port on all IPv4 addresses until it is destroyed.
class CTakenPort {
 public:
  explicit CTakenPort(std::uint16_t port);
  ~CTakenPort();
  CTakenPort(const CTakenPort&) = delete;
  CTakenPort& operator=(const CTakenPort&) = delete;

 private:
  int socket_;
};

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_PORTS_H
