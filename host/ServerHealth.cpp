#include "ServerHealth.h"

#include <algorithm>
#include <utility>

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint32_t kPeriodMs = 2000;
constexpr std::chrono::seconds kPatience{10};

}  // namespace
}  // namespace details

bool HealthReport::IsWell() const {
  return std::all_of(parts.begin(), parts.end(), [](const HealthPart& part) { return part.trouble.empty(); });
}

CServerHealth::CServerHealth(std::vector<Probe> probes)
    : CSingleBaseThread("tansy-health"), probes_(std::move(probes)), running_(probes_.size()) {
  for (const Probe& probe : probes_) {
    parts_.push_back({probe.name, ""});
  }
}

CServerHealth::~CServerHealth() {
  Stop();
}

void CServerHealth::Begin() {
  Start(details::kPeriodMs);
}

void CServerHealth::OnTimer() {
  for (std::size_t i = 0; i < probes_.size() && !IsStopping(); ++i) {
    {
      const std::scoped_lock lock(mutex_);
      running_ = i;
      asked_at_ = Clock::now();
    }
    std::string trouble;
    try {
      trouble = probes_[i].look();
    } catch (const std::exception& error) {
      trouble = error.what();
    }
    const std::scoped_lock lock(mutex_);
    parts_[i].trouble = std::move(trouble);
    running_ = probes_.size();
  }
}

HealthReport CServerHealth::Report() const {
  const std::scoped_lock lock(mutex_);
  HealthReport report{parts_};
  if (running_ < report.parts.size() && Clock::now() - asked_at_ > details::kPatience) {
    report.parts[running_].trouble = "does not answer";
  }
  return report;
}

}  // namespace Tansy::Host
