#include "HostSystem/ServiceManager.h"

namespace HostSystem {

void TellServiceManager(EServiceState /*state*/) {}

std::optional<std::chrono::microseconds> WatchdogPeriod() {
  return std::nullopt;
}

std::vector<std::intptr_t> TakeServiceSockets() {
  return {};
}

}  // namespace HostSystem
