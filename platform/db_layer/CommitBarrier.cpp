#include "db_layer/CommitBarrier.h"

#include <exception>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace db_layer {

namespace details {
namespace {

struct Barrier {
  std::shared_mutex mutex;  // shared by calls under way
  CommitBarrier call;
};
// It lives until the process ends, because threads that end late may still commit.
Barrier& TheBarrier() {
  static auto* barrier = new Barrier;
  return *barrier;
}

void SetReason(std::string& error, const char* reason) noexcept {
  try {
    error = reason;
  } catch (const std::exception&) {
    error.clear();
  }
}

}  // namespace
}  // namespace details

void SetCommitBarrier(CommitBarrier barrier) {
  details::Barrier& target = details::TheBarrier();
  const std::unique_lock lock(target.mutex);
  target.call.swap(barrier);
}

bool PassCommitBarrier(const std::vector<std::string_view>& statements, std::string& error) noexcept {
  details::Barrier& barrier = details::TheBarrier();
  const std::shared_lock lock(barrier.mutex);
  try {
    return !barrier.call || barrier.call(statements, error);
  } catch (const std::exception& failure) {
    details::SetReason(error, failure.what());
    return false;
  }
}

}  // namespace db_layer
