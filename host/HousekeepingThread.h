#ifndef TANSY_HOST_HOUSEKEEPING_THREAD_H
#define TANSY_HOST_HOUSEKEEPING_THREAD_H

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Housekeeping.h"
#include "NodeLease.h"
#include "TansyBase/SingleBaseThread.h"
#include "WriteGate.h"
#include "db_layer/Connect.h"

namespace Tansy::Host {

// Runs housekeeping beside a running server, on a thread of its own; between its rounds the thread answers checks. Stop
// ends the thread within a batch, whatever it is doing.
class CHousekeepingThread final : public TansyBase::CSingleBaseThread {
 public:
  // `lease` is null unless this process shares the catalogue; it must outlive this object.
  CHousekeepingThread(std::shared_ptr<IObjectStore> store, db_layer::DBParam database, const HousekeepingRules& rules,
                      const CNodeLease* lease = nullptr);
  ~CHousekeepingThread() override;

  void Begin();
  // What it does with notes of the catalogue in one piece passes this gate.
  CWriteGate& Batches() { return batches_; }
  // Says where the catalogue is from now on.
  void SetDatabase(const db_layer::DBParam& database);

 protected:
  void OnTimer() override;

 private:
  const std::shared_ptr<IObjectStore> store_;
  std::mutex database_mutex_;
  db_layer::DBParam database_;  // guarded by the mutex
  using FindOthers = std::function<bool(std::vector<std::string>& names)>;
  const FindOthers find_others_;  // null unless this process shares the catalogue
  const std::int64_t period_seconds_;
  CWriteGate batches_;
  CHousekeeping housekeeping_;
  std::int64_t last_round_ = 0;  // uptime of the last round
  bool has_run_ = false;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_HOUSEKEEPING_THREAD_H
