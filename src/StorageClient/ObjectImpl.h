// What all copies of one object client share.
#ifndef TANSY_SRC_STORAGE_CLIENT_OBJECT_IMPL_H
#define TANSY_SRC_STORAGE_CLIENT_OBJECT_IMPL_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

// Codes of the object client's last error.
enum ObjectClientError : std::int32_t {
  kBadArgument = 2,
  kLocalFile = 3,
  kNotSent = 4,
  kUnexpectedAnswer = 5,
  kBadRedirect = 6,
  kNoSpace = 7,
  kNoSuchBucket = 8,
  kNoSuchKey = 9,
};

// The most recent failure. Successes do not clear it. Any thread.
class SLastError {
 public:
  // Leaves the second code as it was.
  void Set(std::int32_t code, const std::string& message) {
    const std::lock_guard lock(mutex_);
    code_ = code;
    message_ = message;
  }

  void Set(std::int32_t code, std::int32_t second, const std::string& message) {
    const std::lock_guard lock(mutex_);
    code_ = code;
    message_ = message;
    second_ = second;
  }

  void Get(std::int32_t& code, std::int32_t& second, std::string& message) const {
    const std::lock_guard lock(mutex_);
    code = code_;
    second = second_;
    message = message_;
  }

 private:
  mutable std::mutex mutex_;
  std::int32_t code_ = 0;
  std::string message_;
  std::int32_t second_ = 0;
};

// The largest object that is uploaded from memory in one request.
inline constexpr std::uint32_t kMaxBufferUploadBytes = 33554432;

struct ObjectImpl {
  explicit ObjectImpl(const SStorageServerConfig& server_config) : config(server_config) {}

  const SStorageServerConfig config;
  SLastError last_error;
  // Written by SetTimeoutConfig while other threads send requests.
  std::atomic<std::uint32_t> receive_timeout_ms{15000};
  std::atomic<std::uint32_t> send_timeout_ms{15000};
};

// "/" + pool + "/" + key: the path of an object in every request, and its URL for callers.
inline std::string ObjectPath(const SStorageServerConfig& config, const std::string& key) {
  return "/" + config.pool_name + "/" + key;
}

// Tells the caller's callback, if there is one, how far a transfer has come.
inline void ReportProgress(const SStorageServerConfig& config, std::int32_t percent) {
  if (config.callback) {
    UploadProgress progress;
    progress.percent = percent;
    progress.user_data = config.user_data;
    config.callback(progress);
  }
}

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_OBJECT_IMPL_H
