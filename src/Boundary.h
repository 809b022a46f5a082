#ifndef TANSY_SRC_BOUNDARY_H
#define TANSY_SRC_BOUNDARY_H

#include <exception>

#include "ModuleLog.h"

namespace Tansy::CloudStorage {

// Runs the body of an exported function, so that nothing is thrown into the host. When the body throws (memory is
// missing, or an interface of the host fails), a line in the log says so and the result is `failure`.
template <class Result, class Body>
Result AtBoundary(const char* entry, Result failure, Body&& body) noexcept {
  try {
    return body();
  } catch (const std::exception& error) {
    CLOUD_LOG(logging::kError, "[%s]%s failed, exception:%s[%s(%d)]", entry, error.what());
  } catch (...) {
    CLOUD_LOG(logging::kError, "[%s]%s failed, unknown exception[%s(%d)]", entry);
  }
  return failure;
}

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_BOUNDARY_H
