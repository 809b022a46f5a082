#ifndef TANSY_HOST_HOUSEKEEPING_THREAD_H
#define TANSY_HOST_HOUSEKEEPING_THREAD_H

#include <cstdint>
#include <memory>

#include "Housekeeping.h"
#include "TansyBase/SingleBaseThread.h"
#include "db_layer/Connect.h"

namespace Tansy::Host {

// Runs housekeeping beside a running server, on a thread of its own; between its rounds the thread answers checks. Stop
// ends the thread within a batch, whatever it is doing.
class CHousekeepingThread final : public TansyBase::CSingleBaseThread {
 public:
  CHousekeepingThread(std::shared_ptr<IObjectStore> store, db_layer::DBParam database, const HousekeepingRules& rules);
  ~CHousekeepingThread() override;

  void Begin();

 protected:
  void OnTimer() override;

 private:
  const std::shared_ptr<IObjectStore> store_;
  const db_layer::DBParam database_;
  const std::int64_t period_seconds_;
  CHousekeeping housekeeping_;
  std::int64_t last_round_ = 0;  // uptime of the last round
  bool has_run_ = false;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_HOUSEKEEPING_THREAD_H
