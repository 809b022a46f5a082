#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_INTERFACE_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_INTERFACE_H

#include <cstdint>

namespace Tansy::CloudStorage {

// Between two tries to reach the database at start.
inline constexpr std::uint32_t kDatabaseRetryMs = 5000;

// Registers the host's database and follows its changes. Blocks, trying again for as long as it takes, until the
// database accepts; then always true. The connection settings are those that CIInterfaceManager's interface tells.
bool InitDBModule();

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_INTERFACE_H
