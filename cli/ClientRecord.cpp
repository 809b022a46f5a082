#include "ClientRecord.h"

namespace Tansy::Cli {

CloudStorage::SStorageServerConfig MakeClientRecord(const Settings& settings, const ServerAddress& server,
                                                    const std::string& pool) {
  CloudStorage::SStorageServerConfig record;
  record.is_https = server.is_https;
  record.ip = server.HostText();
  record.upload_port = server.port;
  record.download_port = server.port;
  record.pool_name = pool;
  record.ak = settings.access_key;
  record.sk = settings.secret_key;
  return record;
}

}  // namespace Tansy::Cli
