#include "App.h"

#include <exception>
#include <memory>

#include "CommandLine.h"
#include "CommandSpec.h"
#include "Failure.h"
#include "HostSystem/Terminal.h"
#include "Interrupt.h"
#include "ModuleLogSink.h"
#include "Output.h"
#include "Parallel.h"

namespace Tansy::Cli {

int Run(int argc, const char* const* argv) {
  try {
    HostSystem::MakeStreamsBinary();
    const ParsedCommandLine line = ParseCommandLine(argc, argv);
    if (!line.print_only.empty()) {
      PrintBytes(line.print_only.data(), line.print_only.size());
      return kExitDone;
    }
    EndCleanlyOnInterrupt();
    KeepModuleLog();
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
