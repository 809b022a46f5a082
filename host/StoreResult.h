#ifndef TANSY_HOST_STORE_RESULT_H
#define TANSY_HOST_STORE_RESULT_H

#include <cerrno>

#include "HostSystem/Files.h"
#include "ObjectStore.h"

namespace Tansy::Host {

// What an errno value means for whoever uses a store.
inline EStoreResult StoreResultOf(int error) {
  if (error == 0) {
    return EStoreResult::kDone;
  }
  if (HostSystem::IsNoSpace(error)) {
    return EStoreResult::kNoSpace;
  }
  return error == ENOENT ? EStoreResult::kMissing : EStoreResult::kFailed;
}

}  // namespace Tansy::Host

#endif  // TANSY_HOST_STORE_RESULT_H
