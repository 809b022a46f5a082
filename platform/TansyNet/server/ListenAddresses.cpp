#include "TansyNet/server/ListenAddresses.h"

#include <utility>

namespace TansyNet {
namespace details {
namespace {

constexpr const char* kAnyIpv4 = "0.0.0.0";
constexpr const char* kAnyIpv6 = "::";

bool IsIpv6(const std::string& address) {
  return address.find(':') != std::string::npos;
}

}  // namespace
}  // namespace details

void CListenAddresses::Set(std::vector<std::string> addresses) {
  const std::scoped_lock lock(mutex_);
  addresses_ = std::move(addresses);
}

std::vector<std::string> CListenAddresses::Of(const std::string& address) const {
  const std::scoped_lock lock(mutex_);
  if (addresses_.empty() || (address != details::kAnyIpv4 && address != details::kAnyIpv6)) {
    return {address};
  }
  std::vector<std::string> result;
  for (const std::string& each : addresses_) {
    if (details::IsIpv6(each) == details::IsIpv6(address)) {
      result.push_back(each);
    }
  }
  return result;
}

std::int32_t CListenAddresses::Join(const std::vector<std::int32_t>& handles) {
  if (handles.size() > 1) {
    const std::scoped_lock lock(mutex_);
    companions_[handles.front()] = {handles.begin() + 1, handles.end()};
  }
  return handles.empty() ? 0 : handles.front();
}

std::vector<std::int32_t> CListenAddresses::Part(std::int32_t handle) {
  std::vector<std::int32_t> handles = {handle};
  const std::scoped_lock lock(mutex_);
  const auto found = companions_.find(handle);
  if (found != companions_.end()) {
    handles.insert(handles.end(), found->second.begin(), found->second.end());
    companions_.erase(found);
  }
  return handles;
}

}  // namespace TansyNet
