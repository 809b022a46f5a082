#ifndef TANSY_HOST_ADDRESS_WATCH_H
#define TANSY_HOST_ADDRESS_WATCH_H

#include <functional>
#include <string>
#include <vector>

#include "TansyBase/SingleBaseThread.h"

namespace Tansy::Host {

// Looks again and again which address clients can reach this machine at, on a thread of its own: a machine may get its
// address after tansyd has started, and may get another one later.
class CAddressWatch final : public TansyBase::CSingleBaseThread {
 public:
  // Told of each change, on the own thread.
  using Update = std::function<void(const std::string& ip)>;

  // `listen` as ChooseLocalIp takes it; `current` is the address that is in use now.
  CAddressWatch(std::vector<std::string> listen, std::string current, Update update);
  ~CAddressWatch() override;

 protected:
  // While the system does not say which addresses there are, the one in use stays.
  void OnTimer() override;

 private:
  const std::vector<std::string> listen_;
  std::string current_;  // the own thread's
  const Update update_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ADDRESS_WATCH_H
