#ifndef TANSY_HOST_IP_ADDRESS_H
#define TANSY_HOST_IP_ADDRESS_H

#include <optional>
#include <string>

namespace Tansy::Host {

struct IpAddress {
  std::string text;  // in its usual spelling: lower case, the longest run of zeros as "::"
  bool is_ipv6 = false;
  bool is_any = false;         // 0.0.0.0 or ::
  bool is_loopback = false;    // 127.0.0.0/8 or ::1
  bool is_link_local = false;  // 169.254.0.0/16 or fe80::/10: good for one network cable only
};

// Reads an address and nothing but an address: no name, no port, no brackets, no zone, no blanks and no line ends
// around it. Empty when the text is anything else.
std::optional<IpAddress> ParseIpAddress(const std::string& text);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_IP_ADDRESS_H
