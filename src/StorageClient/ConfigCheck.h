#ifndef TANSY_SRC_STORAGE_CLIENT_CONFIG_CHECK_H
#define TANSY_SRC_STORAGE_CLIENT_CONFIG_CHECK_H

#include "ModuleLog.h"
#include "StorageClient/LastError.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

// Says whether a client can work with its configuration. When the answer is false, it leaves a log line in the name of
// `caller` and sets the last error.
bool CheckConfig(const details::Caller& caller, const SStorageServerConfig& config, SLastError& last_error);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_CONFIG_CHECK_H
