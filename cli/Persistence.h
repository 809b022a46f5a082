#ifndef TANSY_CLI_PERSISTENCE_H
#define TANSY_CLI_PERSISTENCE_H

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>

#include "ServerLink.h"

namespace Tansy::Cli {

// Decides whether a request that may be repeated without harm is repeated after a failure, and waits in between. It
// waits long enough for a server to be started again, but not for ever. Threads: one.
class CPersistence {
 public:
  // `stop` may be null; when it becomes true, a wait ends.
  explicit CPersistence(const std::atomic<bool>* stop = nullptr) : stop_(stop) {}

  // Is called after a failure. Returns true after a pause; false when another try is useless or there have been enough.
  bool GoesOn(const LinkOutcome& outcome);
  // Says that there was progress: earlier failures do not count any more.
  void Forget();

 private:
  bool Pause();

  const std::atomic<bool>* const stop_;
  std::optional<std::chrono::steady_clock::time_point> first_failure_;
  std::chrono::milliseconds pause_{0};
  int refusals_ = 0;
};

// Calls `attempt`, and again while `is_to_be_repeated` says so of its outcome and another try may help. `stop` may be
// null.
LinkOutcome Persist(const std::function<LinkOutcome()>& attempt,
                    const std::function<bool(const LinkOutcome& outcome)>& is_to_be_repeated,
                    const std::atomic<bool>* stop);

// Says whether a request is repeated. The first request of a command is not, because its address may be wrong; later
// ones are.
enum class EPatience { kNone, kMuch };

// Sends a request that may be repeated without harm, as often as `patience` allows. `stop` may be null.
LinkOutcome TryPatiently(const CServerLink& link, const LinkRequest& request, EPatience patience = EPatience::kMuch,
                         const std::atomic<bool>* stop = nullptr);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_PERSISTENCE_H
