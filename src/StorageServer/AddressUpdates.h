// Applies the address changes that a host announces to the configuration record of a server.
#ifndef TANSY_SRC_STORAGE_SERVER_ADDRESS_UPDATES_H
#define TANSY_SRC_STORAGE_SERVER_ADDRESS_UPDATES_H

#include <cstdint>
#include <map>
#include <string>

#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage::details {

// The two fields of an update that carry the WAN ports of one server. The fields of the other server do not concern it.
struct WanPortFields {
  WanServerInfoFieldType http;
  WanServerInfoFieldType https;
};

// `port` becomes the port of uploads and of downloads.
void SetWanAddress(StorageServerConfig& config, bool enable, const std::string& wan_ip, std::uint32_t port);
// Applies the fields that are there; the others stay as they are, and fields that mean nothing to the server change
// nothing. A port that is not a number becomes 0.
void SetWanFields(StorageServerConfig_V1& config, const std::map<WanServerInfoFieldType, std::string>& fields,
                  WanPortFields ports);

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_ADDRESS_UPDATES_H
