// What all copies of one object client share.
#ifndef TANSY_SRC_STORAGE_CLIENT_OBJECT_IMPL_H
#define TANSY_SRC_STORAGE_CLIENT_OBJECT_IMPL_H

#include <atomic>
#include <cstdint>
#include <string>

#include "StorageClient/LastError.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

// The largest object that is uploaded from memory in one request.
inline constexpr std::uint32_t kMaxBufferUploadBytes = 33554432;

struct ObjectImpl {
  explicit ObjectImpl(const SStorageServerConfig& server_config) : config(server_config) {}

  const SStorageServerConfig config;
  SLastError last_error;
  // SetTimeoutConfig writes these while other threads send requests.
  std::atomic<std::uint32_t> receive_timeout_ms{15000};
  std::atomic<std::uint32_t> send_timeout_ms{15000};
};

// Gives "/" + pool + "/" + key, which is the path of an object in every request, and its URL for callers.
inline std::string ObjectPath(const SStorageServerConfig& config, const std::string& key) {
  return "/" + config.pool_name + "/" + key;
}

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_OBJECT_IMPL_H
