#include "StorageClient/ConfigCheck.h"

namespace Tansy::CloudStorage {

bool CheckConfig(const details::Caller& caller, const SStorageServerConfig& config, SLastError& last_error) {
  if (config.sk.empty() || config.ak.empty() || config.ip.empty() || config.pool_name.empty()) {
    // Fixed: docs/compatibility.md, "Log texts".
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]sk[%s] , ak[%s], ip[%s], pool name[%s] is invalid.[%s(%d)]",
                  config.ak.c_str(), config.sk.c_str(), config.ip.c_str(), config.pool_name.c_str());
    last_error.Set(ClientError::kBadArgument, "ak/sk empty or ip & pool name empty.");
    return false;
  }
  if (config.upload_port == 0 || config.download_port == 0) {
    CLOUD_LOG_FOR(caller, logging::kError, "[%s]upload port[%d] , download port[%d] is invalid.[%s(%d)]",
                  config.upload_port, config.download_port);
    last_error.Set(ClientError::kBadArgument, "upload port or download port is 0.");
    return false;
  }
  return true;
}

}  // namespace Tansy::CloudStorage
