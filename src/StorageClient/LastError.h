#ifndef TANSY_SRC_STORAGE_CLIENT_LAST_ERROR_H
#define TANSY_SRC_STORAGE_CLIENT_LAST_ERROR_H

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "TansyCloudStorage/ClientFailure.h"

namespace Tansy::CloudStorage {

// The texts and codes by which GetLastError describes a failure.
struct SLastErrorTexts {
  ClientError code = ClientError::kNone;
  std::int32_t second = 0;
  std::string message;
};

// Keeps the most recent failure. Successes do not clear it. Threads: any.
class SLastError {
 public:
  void Set(ClientError code, const std::string& message) {
    SClientFailure failure;
    failure.code = code;
    failure.text = message;
    Set(std::move(failure));
  }

  // Leaves the second code as it was.
  void Set(SClientFailure failure) {
    const std::lock_guard lock(mutex_);
    texts_ = {failure.code, texts_.second, failure.text};
    failure_ = std::move(failure);
  }

  void Set(SClientFailure failure, std::int32_t second) {
    const std::lock_guard lock(mutex_);
    texts_ = {failure.code, second, failure.text};
    failure_ = std::move(failure);
  }

  // This form is for a failure that GetLastError describes in another way, because its codes and texts are fixed.
  void Set(SClientFailure failure, SLastErrorTexts texts) {
    const std::lock_guard lock(mutex_);
    texts_ = std::move(texts);
    failure_ = std::move(failure);
  }

  // This needs no memory.
  void SetOutOfResources() noexcept {
    const std::lock_guard lock(mutex_);
    texts_.code = ClientError::kOutOfResources;
    texts_.message.clear();
    failure_ = {};
    failure_.code = ClientError::kOutOfResources;
  }

  SLastErrorTexts GetTexts() const {
    const std::lock_guard lock(mutex_);
    return texts_;
  }

  SClientFailure GetFailure() const {
    const std::lock_guard lock(mutex_);
    return failure_;
  }

 private:
  mutable std::mutex mutex_;
  SLastErrorTexts texts_;
  SClientFailure failure_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_LAST_ERROR_H
