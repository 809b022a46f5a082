// Features of S3 that this server does not have. Clients ask for them before they do something else, and go on when
// they learn that nothing is set. Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_ABSENT_FEATURES_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_ABSENT_FEATURES_H

#include <string_view>

#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Request.h"

namespace Tansy::CloudStorage::S3 {

// A feature, and how it is said that nothing is set: by an error, or by an answer with this content.
struct AbsentFeature {
  std::string_view parameter;
  EError error;
  std::string_view root;
  std::string_view element;  // of the root; empty: none
  std::string_view value;
  bool is_removable;  // what is not set may be removed
};

// Gives the feature that a request is about; null when it is about none of these.
const AbsentFeature* FindAbsentFeature(const Request& request);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_ABSENT_FEATURES_H
