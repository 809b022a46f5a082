#ifndef TANSY_CLI_PERSISTENCE_H
#define TANSY_CLI_PERSISTENCE_H

#include <atomic>
#include <chrono>
#include <optional>

#include "ServerLink.h"

namespace Tansy::Cli {

// Decides whether a request that may be repeated without harm is repeated after a failure, and waits in between: long
// enough for a server that is started again, and not for ever. One thread.
class CPersistence {
 public:
  // `stop` may be null; it ends a wait.
  explicit CPersistence(const std::atomic<bool>* stop = nullptr) : stop_(stop) {}

  // After a failure. False: another try is no use, or there have been enough; true after a pause.
  bool GoesOn(const LinkOutcome& outcome);
  // Something has come forward: what failed before does not count any more.
  void Forget();

 private:
  bool Pause();

  const std::atomic<bool>* const stop_;
  std::optional<std::chrono::steady_clock::time_point> first_failure_;
  std::chrono::milliseconds pause_{0};
  int refusals_ = 0;
};

// Whether a request is repeated: not the first one of a command, whose address may be wrong, but those in its middle.
enum class EPatience { kNone, kMuch };

// Sends a request that may be repeated without harm, as often as patience allows. `stop` may be null.
LinkOutcome TryPatiently(const CServerLink& link, const LinkRequest& request, EPatience patience = EPatience::kMuch,
                         const std::atomic<bool>* stop = nullptr);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_PERSISTENCE_H
