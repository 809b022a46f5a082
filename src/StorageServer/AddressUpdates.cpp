#include "StorageServer/AddressUpdates.h"

#include "OSAL/Osal.h"

namespace Tansy::CloudStorage::details {

namespace {

std::uint32_t PortOf(const std::string& text) {
  return static_cast<std::uint32_t>(OSAL_StrToi32(text.c_str()));
}

}  // namespace

void SetWanAddress(StorageServerConfig& config, bool enable, const std::string& wan_ip, std::uint32_t port) {
  config.wan_enable = enable;
  config.wan_ip = wan_ip;
  config.wan_port = port;
  config.wan_download_port = port;
}

void SetWanFields(StorageServerConfig_V1& config, const std::map<WanServerInfoFieldType, std::string>& fields,
                  WanPortFields ports) {
  for (const auto& [field, value] : fields) {
    if (field == WAN_ENABLE) {
      config.wan_enable = value == "true";
    } else if (field == WAN_IP) {
      config.wan_ip = value;
    } else if (field == ports.http) {
      config.wan_port = PortOf(value);
      config.wan_download_port = config.wan_port;
    } else if (field == ports.https) {
      config.https_wan_port = PortOf(value);
      config.https_wan_download_port = config.https_wan_port;
    }
  }
}

}  // namespace Tansy::CloudStorage::details
