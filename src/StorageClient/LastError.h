#ifndef TANSY_SRC_STORAGE_CLIENT_LAST_ERROR_H
#define TANSY_SRC_STORAGE_CLIENT_LAST_ERROR_H

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "TansyCloudStorage/ClientFailure.h"

namespace Tansy::CloudStorage {

// The most recent failure. Successes do not clear it. Any thread.
class SLastError {
 public:
  void Set(ClientError code, const std::string& message) { Set(Make(code, message)); }
  void Set(ClientError code, std::int32_t second, const std::string& message) { Set(Make(code, message), second); }

  // Leaves the second code as it was.
  void Set(SClientFailure failure) {
    const std::lock_guard lock(mutex_);
    failure_ = std::move(failure);
    code_ = failure_.code;
    message_ = failure_.text;
  }

  void Set(SClientFailure failure, std::int32_t second) {
    Set(std::move(failure));
    const std::lock_guard lock(mutex_);
    second_ = second;
  }

  void Get(std::int32_t& code, std::int32_t& second, std::string& message) const {
    const std::lock_guard lock(mutex_);
    message = message_;
    code = static_cast<std::int32_t>(code_);
    second = second_;
  }

  SClientFailure Get() const {
    const std::lock_guard lock(mutex_);
    return failure_;
  }

 private:
  static SClientFailure Make(ClientError code, const std::string& message) {
    SClientFailure failure;
    failure.code = code;
    failure.text = message;
    return failure;
  }

  mutable std::mutex mutex_;
  ClientError code_ = ClientError::kNone;
  std::string message_;
  std::int32_t second_ = 0;
  SClientFailure failure_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_LAST_ERROR_H
