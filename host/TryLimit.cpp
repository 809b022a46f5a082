#include "TryLimit.h"

#include <algorithm>
#include <vector>

#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::int64_t kMillisecondsPerSecond = 1000;
constexpr std::size_t kGroups = 8;
constexpr std::size_t kGroupsOfNetwork = 4;

std::vector<std::string> GroupsOf(std::string_view text) {
  std::vector<std::string> groups;
  while (!text.empty()) {
    const std::size_t colon = std::min(text.find(':'), text.size());
    groups.emplace_back(text.substr(0, colon));
    text.remove_prefix(std::min(colon + 1, text.size()));
  }
  return groups;
}

std::int64_t NowMs() {
  return TansyBase::TimeUtil::Uptime() * kMillisecondsPerSecond;
}

// Gives for how long a try has to wait; 0 or less: not at all.
std::int64_t WaitMs(std::int64_t free_at, const CTryLimit::Rule& rule, std::int64_t now) {
  return std::max(free_at, now) + rule.pause_ms - rule.burst * rule.pause_ms - now;
}

void Add(std::int64_t& free_at, const CTryLimit::Rule& rule, std::int64_t now) {
  free_at = std::max(free_at, now) + rule.pause_ms;
}

}  // namespace
}  // namespace details

std::string NetworkOf(std::string_view address) {
  address = address.substr(0, address.find('%'));
  if (address.find(':') == std::string_view::npos) {
    return std::string(address);
  }
  const std::size_t gap = std::min(address.find("::"), address.size());
  std::vector<std::string> groups = details::GroupsOf(address.substr(0, gap));
  const std::vector<std::string> behind = details::GroupsOf(address.substr(std::min(gap + 2, address.size())));
  groups.resize(std::max(groups.size(), details::kGroups - std::min(behind.size(), details::kGroups)), "0");
  groups.insert(groups.end(), behind.begin(), behind.end());
  groups.resize(details::kGroupsOfNetwork);
  std::string network;
  for (const std::string& group : groups) {
    network += group + ":";
  }
  return network;
}

std::int64_t& CTryLimit::OfAddress(std::string_view address, std::int64_t now) {
  const std::string network = NetworkOf(address);
  const auto found = addresses_.find(network);
  if (found != addresses_.end()) {
    return found->second;
  }
  if (addresses_.size() >= kMostAddresses && now != tidied_at_) {
    tidied_at_ = now;
    std::erase_if(addresses_, [now](const auto& entry) { return entry.second <= now; });
  }
  return addresses_.size() >= kMostAddresses ? others_ : addresses_[network];
}

std::int64_t CTryLimit::Take(std::string_view address) {
  const std::scoped_lock lock(mutex_);
  const std::int64_t now = details::NowMs();
  std::int64_t& free_at = OfAddress(address, now);
  const std::int64_t wait = std::max(details::WaitMs(free_at, each_, now), details::WaitMs(together_, all_, now));
  if (wait > 0) {
    return (wait + details::kMillisecondsPerSecond - 1) / details::kMillisecondsPerSecond;
  }
  details::Add(free_at, each_, now);
  details::Add(together_, all_, now);
  return 0;
}

void CTryLimit::GiveBack(std::string_view address) {
  const std::scoped_lock lock(mutex_);
  OfAddress(address, details::NowMs()) -= each_.pause_ms;
  together_ -= all_.pause_ms;
}

std::size_t CTryLimit::AddressCount() const {
  const std::scoped_lock lock(mutex_);
  return addresses_.size();
}

}  // namespace Tansy::Host
