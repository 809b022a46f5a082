#ifndef TANSY_HOST_QUIET_LOG_H
#define TANSY_HOST_QUIET_LOG_H

#include <memory>
#include <utility>

#include "logging/Logging.h"

namespace Tansy::Host {

// Leaves lines out that the module writes at the level of errors for requests of a healthy server: each request that is
// signed by its header, each new object, each picture that is read by a link. Whoever is refused still leaves another
// line. While everything is logged (kTrace), these lines are too.
//
// Threads: any.
class CQuietLog final : public logging::ISink {
 public:
  explicit CQuietLog(std::shared_ptr<logging::ISink> sink) : sink_(std::move(sink)) {}

  void Write(const logging::Record& record) override;
  void Flush() override { sink_->Flush(); }

 private:
  const std::shared_ptr<logging::ISink> sink_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_QUIET_LOG_H
