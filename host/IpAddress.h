#ifndef TANSY_HOST_IP_ADDRESS_H
#define TANSY_HOST_IP_ADDRESS_H

#include <optional>
#include <string>

namespace Tansy::Host {

struct IpAddress {
  std::string text;  // in its usual spelling: lower case, the longest run of zeros as "::"
  bool is_ipv6 = false;
  bool is_any = false;         // true for 0.0.0.0 and ::
  bool is_loopback = false;    // true for 127.0.0.0/8 and ::1
  bool is_link_local = false;  // true for 169.254.0.0/16 and fe80::/10, which count on one network cable only
};

// Reads an address and nothing but an address: no name, port, brackets or zone, and no blanks or line ends around it.
// The result is empty when the text is anything else.
std::optional<IpAddress> ParseIpAddress(const std::string& text);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_IP_ADDRESS_H
