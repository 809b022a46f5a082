#ifndef TANSY_SRC_STORAGE_SERVER_HOST_FIELD_H
#define TANSY_SRC_STORAGE_SERVER_HOST_FIELD_H

#include <optional>
#include <string>

namespace Tansy::CloudStorage::details {

// Where a client says it reached the server, as its Host header has it.
struct HostField {
  std::string host;                      // without the brackets of an IPv6 address
  std::optional<std::string> port_text;  // what follows the colon; none without a colon
};

// Takes "host:port" and "[IPv6 address]:port" apart. In the second form the colon is the one behind the bracket, in the
// first form it is the first one.
HostField ParseHostField(const std::string& value);

// "127.0.0.1" and "::1".
bool IsLoopback(const std::string& host);

// A host as an address with a port takes it: an IPv6 address gets its brackets.
std::string InBrackets(const std::string& host);

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_HOST_FIELD_H
