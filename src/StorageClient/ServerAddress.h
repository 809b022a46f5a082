#ifndef TANSY_SRC_STORAGE_CLIENT_SERVER_ADDRESS_H
#define TANSY_SRC_STORAGE_CLIENT_SERVER_ADDRESS_H

#include <string>

#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

// Gives "https://" or "http://", as configured.
const char* Scheme(const SStorageServerConfig& config);

// Writes "address:port" as URLs and Host headers do: an IPv6 address gets brackets unless it has them.
std::string HostAndPort(const std::string& address, const std::string& port);

// Does the same for a text that holds both. Servers may name an IPv6 node without brackets: its port follows the last
// colon.
std::string NodeAddress(const std::string& node);

// Gives the text between the scheme and the path of an absolute URL.
std::string AddressOfUrl(const std::string& url);

// True when `url` is absolute and names the configured server: its scheme, its name or address, and one of its ports.
bool IsConfiguredServer(const SStorageServerConfig& config, const std::string& url);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_SERVER_ADDRESS_H
