#ifndef TANSY_SRC_STORAGE_CLIENT_OBJECT_CLIENT_GUARD_H
#define TANSY_SRC_STORAGE_CLIENT_OBJECT_CLIENT_GUARD_H

#include <exception>

#include "ModuleLog.h"

namespace Tansy::CloudStorage {

// Runs one exported operation. What it throws (memory that ran out, a progress callback of the caller) stays inside the
// module and makes the operation fail.
template <class Operation>
bool RunGuarded(const Operation& operation) noexcept {
  try {
    return operation();
  } catch (const std::exception& exception) {
    CLOUD_LOG(logging::kError, "[%s][Client]operation failed, exception[%s][%s(%d)]", exception.what());
  } catch (...) {
    CLOUD_LOG(logging::kError, "[%s][Client]operation failed, exception of unknown type[%s(%d)]");
  }
  return false;
}

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_OBJECT_CLIENT_GUARD_H
