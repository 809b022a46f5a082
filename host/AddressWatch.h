#ifndef TANSY_HOST_ADDRESS_WATCH_H
#define TANSY_HOST_ADDRESS_WATCH_H

#include <functional>
#include <string>
#include <vector>

#include "TansyBase/SingleBaseThread.h"

namespace Tansy::Host {

// Looks again and again which address clients can reach this machine at. It uses a thread of its own, because a machine
// may get its address after tansyd has started, and may get another one later.
class CAddressWatch final : public TansyBase::CSingleBaseThread {
 public:
  // The function is told of each change, on the thread of this class.
  using Update = std::function<void(const std::string& ip)>;

  // `listen` is a list as ChooseLocalIp takes it; `current` is the address that is in use now.
  CAddressWatch(std::vector<std::string> listen, std::string current, Update update);
  ~CAddressWatch() override;

 protected:
  // Keeps the address in use when the system does not say which addresses there are.
  void OnTimer() override;

 private:
  const std::vector<std::string> listen_;
  std::string current_;  // used by the own thread only
  const Update update_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ADDRESS_WATCH_H
