#ifndef TANSY_HOST_SERVER_HEALTH_H
#define TANSY_HOST_SERVER_HEALTH_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "TansyBase/SingleBaseThread.h"

namespace Tansy::Host {

// One thing that a server needs to serve.
struct HealthPart {
  std::string name;     // "database"
  std::string trouble;  // what is wrong with it, in words; empty when nothing is
};

struct HealthReport {
  std::vector<HealthPart> parts;

  bool IsWell() const;
};

// Looks every two seconds whether the server has what it needs, on a thread of its own: whoever asks gets the last
// result at once, also while a database does not answer.
//
// Threads: any may ask.
class CServerHealth final : public TansyBase::CSingleBaseThread {
 public:
  struct Probe {
    std::string name;
    std::function<std::string()> look;  // gives the trouble; called on the thread of this class, and may take long
  };

  explicit CServerHealth(std::vector<Probe> probes);
  ~CServerHealth() override;

  void Begin();
  // The last result. A probe that has not come back for ten seconds is in trouble itself.
  HealthReport Report() const;

 protected:
  void OnTimer() override;

 private:
  using Clock = std::chrono::steady_clock;

  const std::vector<Probe> probes_;
  mutable std::mutex mutex_;
  // Everything below is guarded by mutex_.
  std::vector<HealthPart> parts_;
  std::size_t running_ = 0;     // the probe that is asked now; the number of probes when none is
  Clock::time_point asked_at_;  // when that began
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_SERVER_HEALTH_H
