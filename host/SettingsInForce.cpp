#include "SettingsInForce.h"

#include "db_layer/DbLayer.h"

namespace Tansy::Host {
namespace details {
namespace {

std::string Joined(const std::vector<std::string>& values) {
  std::string text;
  for (const std::string& value : values) {
    text += (text.empty() ? "" : ",") + value;
  }
  return text;
}

std::string DatabaseText(const db_layer::DBParam& database) {
  return (database.type == db_layer::kPostgresql ? "" : "sqlite:") + db_layer::DescribeDatabase(database);
}

}  // namespace
}  // namespace details

std::vector<std::pair<std::string, std::string>> SettingsInForce(const HostOptions& options) {
  using std::to_string;
  const std::uint16_t admin_port = options.admin_port.value_or(HostOptions::kUsualAdminPort);
  return {
      {"data", options.data},
      {"config", options.config},
      {"object-port", to_string(options.object_port)},
      {"object-https-port", to_string(options.object_https_port)},
      {"picture-port", to_string(options.picture_port)},
      {"picture-https-port", to_string(options.picture_https_port)},
      {"s3-port", to_string(options.s3_port)},
      {"s3-https-port", to_string(options.s3_https_port)},
      {"admin-port", to_string(admin_port)},
      {"admin-listen", details::Joined(options.admin_listen)},
      {"s3-region", options.s3_region},
      {"s3-domain", options.s3_domain},
      {"s3-v2-links", options.s3_v2_links ? "on" : "off"},
      {"s3-cors-origin", details::Joined(options.s3_cors_origins)},
      {"listen", details::Joined(options.listen)},
      {"local-ip", options.local_ip},
      {"wan-ip", options.wan_ip},
      {"wan-object-port", to_string(options.wan_object_port)},
      {"wan-picture-port", to_string(options.wan_picture_port)},
      {"wan-object-https-port", to_string(options.wan_object_https_port)},
      {"wan-picture-https-port", to_string(options.wan_picture_https_port)},
      {"database", details::DatabaseText(options.database)},
      {"storage", options.storage},
      {"node-name", options.node_name},
      {"durability", options.full_durability ? "full" : "fast"},
      {"memory-limit", to_string(options.memory_limit_mib)},
      {"require-date", to_string(options.require_date_minutes)},
      {"keep-removed", to_string(options.keep_removed_days)},
      {"keep-failed", to_string(options.keep_failed_seconds)},
      {"log-level", to_string(options.log_level)},
      {"log-file", options.log_file},
      {"access-log", options.access_log},
      {"access-log-format", options.access_log_json ? "json" : "combined"},
      {"server-timing", options.server_timing ? "on" : "off"},
  };
}

}  // namespace Tansy::Host
