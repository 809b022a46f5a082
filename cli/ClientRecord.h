// The record that the module's two client classes are made from.
#ifndef TANSY_CLI_CLIENT_RECORD_H
#define TANSY_CLI_CLIENT_RECORD_H

#include <string>

#include "Settings.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::Cli {

// For transfers with `server` in `pool`, signed with the keys of `settings`.
CloudStorage::SStorageServerConfig MakeClientRecord(const Settings& settings, const ServerAddress& server,
                                                    const std::string& pool);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_CLIENT_RECORD_H
