#include "StorageServer/S3Server/S3TagWaiters.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Tansy::CloudStorage::S3 {

CTagWaiters& CTagWaiters::Instance() {
  return CSingleton<CTagWaiters>::Instance();
}

bool CTagWaiters::Add(const std::string& location, Waiter waiter) {
  Waiters first;
  first.reserve(1);
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto [entry, is_first] = waiters_.try_emplace(location, std::move(first));
  entry->second.push_back(std::move(waiter));  // the first one has its room
  return is_first;
}

// The HTTP library is asked without the lock, because it may take locks of its own to answer.
bool CTagWaiters::IsWanted(const std::string& location) const {
  std::vector<std::int32_t> handles;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = waiters_.find(location);
    if (found != waiters_.end()) {
      std::transform(found->second.begin(), found->second.end(), std::back_inserter(handles),
                     [](const Waiter& waiter) { return waiter.handle; });
    }
  }
  return std::any_of(handles.begin(), handles.end(), &TansyNet::CHttpServer::IsRequestOpen);
}

CTagWaiters::Waiters CTagWaiters::Take(const std::string& location) noexcept {
  Waiters taken;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (const auto found = waiters_.find(location); found != waiters_.end()) {
    taken.swap(found->second);
    waiters_.erase(found);
  }
  return taken;
}

std::size_t CTagWaiters::Size() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return waiters_.size();
}

}  // namespace Tansy::CloudStorage::S3
