#include "AddressWatch.h"

#include <optional>
#include <utility>

#include "Addresses.h"
#include "HostLog.h"
#include "OSAL/Osal.h"

namespace Tansy::Host {

CAddressWatch::CAddressWatch(std::vector<std::string> listen, std::string current, Update update)
    : listen_(std::move(listen)), current_(std::move(current)), update_(std::move(update)) {}

CAddressWatch::~CAddressWatch() {
  Stop();
}

void CAddressWatch::OnTimer() {
  OSAL_SetThreadName("tansyd-address");
  const std::optional<std::vector<std::string>> adapters = AdapterAddresses();
  const std::string ip = adapters.has_value() ? ChooseLocalIp(listen_, *adapters) : current_;
  if (ip == current_) {
    return;
  }
  HOST_LOG(logging::kNotable, "[%s]best-node answers name %s now instead of %s.[%s(%d)]", ip.c_str(), current_.c_str());
  current_ = ip;
  update_(ip);
}

}  // namespace Tansy::Host
