// What the exported classes of both clients have in common: they make their shared state, hand out its last failure,
// and catch what an operation throws.
#ifndef TANSY_SRC_STORAGE_CLIENT_CLIENT_STATE_H
#define TANSY_SRC_STORAGE_CLIENT_CLIENT_STATE_H

#include <exception>
#include <memory>
#include <string>

#include "ModuleLog.h"
#include "StorageClient/HostProgress.h"
#include "StorageClient/LastError.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

// Runs one operation of a client. What it throws stays inside the module, makes the operation fail and becomes the last
// failure; `last_error` is null for a client that has no state.
template <class Operation>
bool RunGuarded(SLastError* last_error, const Operation& operation) noexcept {
  try {
    try {
      return operation();
    } catch (const SHostCallbackError& error) {
      if (last_error != nullptr) {
        last_error->Set(ClientError::kHostCallback, "progress function failed[" + error.text + "].");
      }
      if (error.known_type) {
        CLOUD_LOG(logging::kError, "[%s][Client]operation failed, exception[%s][%s(%d)]", error.text.c_str());
      } else {
        CLOUD_LOG(logging::kError, "[%s][Client]operation failed, exception of unknown type[%s(%d)]");
      }
      return false;
    } catch (const std::exception& exception) {
      CLOUD_LOG(logging::kError, "[%s][Client]operation failed, exception[%s][%s(%d)]", exception.what());
      if (last_error != nullptr) {
        last_error->Set(ClientError::kOutOfResources, "operation failed[" + std::string(exception.what()) + "].");
      }
      return false;
    }
  } catch (...) {
    // Nothing else is thrown in the module, so memory was missing for the texts above.
    if (last_error != nullptr) {
      last_error->SetOutOfResources();
    }
  }
  return false;
}

template <class State, class Operation>
bool RunGuarded(const std::shared_ptr<State>& state, const Operation& operation) noexcept {
  return RunGuarded(state ? &state->last_error : nullptr, operation);
}

// Returns null when memory runs out. The constructors of the clients do not throw, so a client without its state fails
// in every operation.
template <class State>
std::shared_ptr<State> MakeClientState(const SStorageServerConfig& config) noexcept {
  std::shared_ptr<State> state;
  RunGuarded(static_cast<SLastError*>(nullptr), [&] {
    state = std::make_shared<State>(config);
    return true;
  });
  return state;
}

// Gives the last failure. Its code is kOutOfResources when the state itself is missing or its texts cannot be copied.
template <class State>
SClientFailure LastFailureOf(const std::shared_ptr<State>& state) noexcept {
  SClientFailure failure;
  failure.code = ClientError::kOutOfResources;
  if (state) {
    RunGuarded(static_cast<SLastError*>(nullptr), [&] {
      failure = state->last_error.GetFailure();
      return true;
    });
  }
  return failure;
}

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_CLIENT_STATE_H
