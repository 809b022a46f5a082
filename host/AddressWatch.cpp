#include "AddressWatch.h"

#include <optional>
#include <utility>

#include "Addresses.h"
#include "HostLog.h"

namespace Tansy::Host {

CAddressWatch::CAddressWatch(std::vector<std::string> listen, std::string current, Update update)
    : CSingleBaseThread("tansyd-address"),
      listen_(std::move(listen)),
      current_(std::move(current)),
      update_(std::move(update)) {}

CAddressWatch::~CAddressWatch() {
  Stop();
}

void CAddressWatch::OnTimer() {
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
