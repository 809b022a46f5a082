#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_INTERFACE_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_INTERFACE_H

#include <cstdint>

namespace Tansy::CloudStorage {

// The time between two tries to reach the database at the start.
inline constexpr std::uint32_t kDatabaseRetryMs = 5000;

// Registers the host's database and follows its changes. It blocks and tries again until the database accepts, then
// returns true. The connection settings are those of the interface that CIInterfaceManager holds.
bool InitDBModule();

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_SERVER_INTERFACE_H
