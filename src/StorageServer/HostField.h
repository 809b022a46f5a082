#ifndef TANSY_SRC_STORAGE_SERVER_HOST_FIELD_H
#define TANSY_SRC_STORAGE_SERVER_HOST_FIELD_H

#include <optional>
#include <string>

namespace Tansy::CloudStorage::details {

// The address at which a client says it reached the server, as its Host header has it.
struct HostField {
  std::string host;                      // without the brackets of an IPv6 address
  std::optional<std::string> port_text;  // text after the colon; nothing when there is no colon
};

// Splits "host:port" and "[IPv6 address]:port". In the second form the colon behind the bracket counts, in the first
// form the first colon.
HostField ParseHostField(const std::string& value);

// Returns true for "127.0.0.1" and "::1".
bool IsLoopback(const std::string& host);

// Writes a host as it stands before a port: an IPv6 address gets brackets.
std::string InBrackets(const std::string& host);

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_HOST_FIELD_H
