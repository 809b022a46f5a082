#include "App.h"

#include <exception>
#include <memory>

#include "CommandLine.h"
#include "CommandSpec.h"
#include "Failure.h"
#include "HostSystem/Terminal.h"
#include "Interrupt.h"
#include "Output.h"
#include "Parallel.h"
#include "Trace.h"
#include "logging/Logging.h"

namespace Tansy::Cli {
namespace details {
namespace {

class CNoSink : public logging::ISink {
 public:
  void Write(const logging::Record& /*record*/) override {}
};

}  // namespace
}  // namespace details

int Run(int argc, const char* const* argv) {
  try {
    HostSystem::MakeStreamsBinary();
    const ParsedCommandLine line = ParseCommandLine(argc, argv);
    if (!line.print_only.empty()) {
      PrintBytes(line.print_only.data(), line.print_only.size());
      return kExitDone;
    }
    EndCleanlyOnInterrupt();
    // The module's log is for hosts. People who use this program get its own messages instead.
    logging::SetSink(std::make_shared<details::CNoSink>());
    if (line.globals.verbose) {
      ShowRequests();
    }
    const CommandCall call{line.globals, line.arguments, line.options};
    return line.command->run(call);
  } catch (const CFailure& failure) {
    PrintFailure(failure);
    return failure.GetExitCode();
  } catch (const std::exception& exception) {
    PrintFailure(CFailure(kExitFailed, exception.what(), ""));
    return kExitFailed;
  }
}

}  // namespace Tansy::Cli
