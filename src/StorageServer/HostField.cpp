#include "StorageServer/HostField.h"

#include <cstddef>

namespace Tansy::CloudStorage::details {

HostField ParseHostField(const std::string& value) {
  HostField field;
  const std::size_t open = value.find('[');
  const std::size_t close = open != std::string::npos ? value.find(']', open) : std::string::npos;
  const bool bracketed = close != std::string::npos;
  const std::size_t colon = value.find(':', bracketed ? close : 0);
  field.host = bracketed ? value.substr(open + 1, close - open - 1) : value.substr(0, colon);
  if (colon != std::string::npos) {
    field.port_text = value.substr(colon + 1);
  }
  return field;
}

bool IsLoopback(const std::string& host) {
  return host == "127.0.0.1" || host == "::1";
}

std::string InBrackets(const std::string& host) {
  return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

}  // namespace Tansy::CloudStorage::details
