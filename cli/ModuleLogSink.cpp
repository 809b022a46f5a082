#include "ModuleLogSink.h"

#include <memory>
#include <utility>

#include "logging/Logging.h"

namespace Tansy::Cli {
namespace details {
namespace {

thread_local std::string last_error;

class CKeepingSink : public logging::ISink {
 public:
  void Write(const logging::Record& record) override {
    // The first of several lines about one failure is the one that knows the reason.
    if (record.level >= logging::kError && last_error.empty()) {
      last_error = record.text;
    }
  }
};

}  // namespace
}  // namespace details

void KeepModuleLog() {
  logging::SetSink(std::make_shared<details::CKeepingSink>());
  logging::SetLowestLevel(logging::kError);
}

std::string TakeModuleError() {
  return std::exchange(details::last_error, std::string());
}

}  // namespace Tansy::Cli
