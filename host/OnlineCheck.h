#ifndef TANSY_HOST_ONLINE_CHECK_H
#define TANSY_HOST_ONLINE_CHECK_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Check.h"

namespace Tansy::Host {

// Compares catalogue and stored bytes inside the running server, one check at a time, on a thread of its own. Nothing
// is repaired. Threads: any may ask.
class COnlineCheck {
 public:
  static constexpr std::size_t kMostFindings = 1000;  // that are kept; all are counted

  // Does the work of RunCheck: writes to `out` and returns an exit code. It is called on the thread of the check.
  using Run = std::function<int(const CheckOptions& options, std::ostream& out)>;

  explicit COnlineCheck(Run run);
  ~COnlineCheck();
  COnlineCheck(const COnlineCheck&) = delete;
  COnlineCheck& operator=(const COnlineCheck&) = delete;

  // Ends a check that runs, and makes Start return false from now on.
  void Stop();

  // Returns false when one runs already. Throws std::system_error when there is no thread for it.
  bool Start();

  struct State {
    bool is_running = false;
    std::int64_t started = 0;     // seconds since 1970; 0: there was none
    std::int64_t ended = 0;       // the same
    std::uint64_t looked_at = 0;  // rows and files so far
    int exit_code = 0;            // of a check that has ended
    std::uint64_t findings = 0;   // lines like those of RunCheck
    std::vector<std::string> first_findings;
    std::string summary;  // the last line; why there is none when it could not look
  };
  State Get() const;

 private:
  void Work();

  const Run run_;
  std::atomic<bool> is_stopping_{false};
  std::atomic<std::uint64_t> looked_at_{0};
  mutable std::mutex mutex_;
  State state_;  // guarded by mutex_
  std::mutex start_mutex_;
  std::thread thread_;  // guarded by start_mutex_
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ONLINE_CHECK_H
