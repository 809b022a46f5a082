// Tells a host's progress function how far a transfer has come.
#ifndef TANSY_SRC_STORAGE_CLIENT_HOST_PROGRESS_H
#define TANSY_SRC_STORAGE_CLIENT_HOST_PROGRESS_H

#include <cstdint>
#include <exception>
#include <string>

#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

// Carries what the host's function threw, so that it can be told from the module's own failures.
struct SHostCallbackError {
  std::string text;
  bool known_type = false;  // true when `text` is the exception's own text
};

// Calls the host's function, if there is one. Throws SHostCallbackError when the function throws.
inline void ReportProgress(const SStorageServerConfig& config, std::int32_t percent) {
  if (!config.callback) {
    return;
  }
  UploadProgress progress;
  progress.percent = percent;
  progress.user_data = config.user_data;
  try {
    config.callback(progress);
  } catch (const std::exception& exception) {
    throw SHostCallbackError{exception.what(), true};
  } catch (...) {
    throw SHostCallbackError{"exception of unknown type", false};
  }
}

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_HOST_PROGRESS_H
