// What all copies of one picture client share.
#ifndef TANSY_SRC_STORAGE_CLIENT_PICTURE_IMPL_H
#define TANSY_SRC_STORAGE_CLIENT_PICTURE_IMPL_H

#include "StorageClient/LastError.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

struct PictureImpl {
  explicit PictureImpl(const SStorageServerConfig& client_config) : config(client_config) {}

  const SStorageServerConfig config;
  SLastError last_error;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_PICTURE_IMPL_H
