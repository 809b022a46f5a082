#ifndef TANSY_HOST_SERVICE_WATCHDOG_H
#define TANSY_HOST_SERVICE_WATCHDOG_H

#include <chrono>
#include <functional>

#include "TansyBase/SingleBaseThread.h"

namespace Tansy::Host {

// Tells the service manager again and again that the server works, as long as it does: a server that has come to a
// stand is then ended and started anew. Slow storage and a database that does not answer are no reason for that,
// because a new start would find the same.
class CServiceWatchdog final : public TansyBase::CSingleBaseThread {
 public:
  // Says whether the server answers within that time, for which it may wait.
  using Look = std::function<bool(std::chrono::milliseconds patience)>;

  // `period` is the time after which the manager loses patience.
  CServiceWatchdog(std::chrono::microseconds period, Look look, std::function<void()> tell);
  ~CServiceWatchdog() override;

  void Begin();

 protected:
  void OnTimer() override;

 private:
  const std::chrono::milliseconds step_;
  const Look look_;
  const std::function<void()> tell_;
  bool was_well_ = true;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_SERVICE_WATCHDOG_H
