// Makes the configuration record for the module's two client classes.
#ifndef TANSY_CLI_CLIENT_RECORD_H
#define TANSY_CLI_CLIENT_RECORD_H

#include <string>

#include "Settings.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::Cli {

// Makes a record for transfers with `server` in `pool`, signed with the keys of `settings`.
CloudStorage::SStorageServerConfig MakeClientRecord(const Settings& settings, const ServerAddress& server,
                                                    const std::string& pool);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_CLIENT_RECORD_H
