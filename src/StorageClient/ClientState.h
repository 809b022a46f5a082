// What the exported classes of both clients do alike: they make their shared state, hand out its last failure and keep
// what an operation throws inside the module.
#ifndef TANSY_SRC_STORAGE_CLIENT_CLIENT_STATE_H
#define TANSY_SRC_STORAGE_CLIENT_CLIENT_STATE_H

#include <exception>
#include <memory>

#include "ModuleLog.h"
#include "StorageClient/LastError.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

// Null when memory runs out: constructors of the clients do not throw, and a client without its state fails in every
// operation.
template <class State>
std::shared_ptr<State> MakeClientState(const SStorageServerConfig& config) noexcept {
  try {
    return std::make_shared<State>(config);
  } catch (const std::exception& exception) {
    CLOUD_LOG(logging::kError, "[%s][Client]operation failed, exception[%s][%s(%d)]", exception.what());
  } catch (...) {
    CLOUD_LOG(logging::kError, "[%s][Client]operation failed, exception of unknown type[%s(%d)]");
  }
  return nullptr;
}

// The last failure, or that there is no memory: for the state itself, or for the copy of its texts.
template <class State>
SClientFailure LastFailureOf(const std::shared_ptr<State>& state) noexcept {
  try {
    if (state) {
      return state->last_error.Get();
    }
  } catch (const std::exception&) {
    // Said below.
  }
  SClientFailure failure;
  failure.code = ClientError::kOutOfResources;
  return failure;
}

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

#endif  // TANSY_SRC_STORAGE_CLIENT_CLIENT_STATE_H
