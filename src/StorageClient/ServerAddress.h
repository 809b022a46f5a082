#ifndef TANSY_SRC_STORAGE_CLIENT_SERVER_ADDRESS_H
#define TANSY_SRC_STORAGE_CLIENT_SERVER_ADDRESS_H

#include <string>

#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

// "https://" or "http://", as configured.
const char* Scheme(const SStorageServerConfig& config);

// "address:port" as URLs and Host headers write it: an IPv6 address goes into brackets, unless it has them.
std::string HostAndPort(const std::string& address, const std::string& port);

// The same for a text that holds both. Servers may name an IPv6 node without brackets: its port follows the last colon.
std::string NodeAddress(const std::string& node);

// What stands between the scheme and the path of an absolute URL.
std::string AddressOfUrl(const std::string& url);

// True when `url` is absolute and names the configured server: its scheme, its name or address, and one of its ports.
bool IsConfiguredServer(const SStorageServerConfig& config, const std::string& url);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_SERVER_ADDRESS_H
