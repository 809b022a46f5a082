#include "Host.h"

#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "HostLog.h"
#include "HostSystem/Process.h"
#include "Server.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

void Complain(const std::string& line) {
  std::string shown = "tansyd: " + line;
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      c = '?';
    }
  }
  std::cerr << shown << std::endl;
}

int Serve(const CommandLine& command_line) {
  CServer server(command_line);
  if (command_line.check) {
    return server.Check(command_line.repair);
  }
  server.Start();
  std::cout << server.ReadyLine() << std::endl;
  while (HostSystem::WaitForSignal() == HostSystem::ESignal::kReload) {
    server.Reload();
  }
  server.Stop();
  return kExitDone;
}

}  // namespace
}  // namespace details

int Run(int argc, const char* const* argv) {
  int exit_code = kExitFailed;
  try {
    const CommandLine command_line = ParseCommandLine(argc, argv);
    if (!command_line.print_only.empty()) {
      std::cout << command_line.print_only << std::flush;
      return kExitDone;
    }
    HostSystem::TakeSignals();
    HostSystem::MakeFilesPrivate();
    HostSystem::RaiseOpenFileLimit();
    exit_code = details::Serve(command_line);
  } catch (const CStartFailure& failure) {
    details::Complain(failure.what());
    exit_code = failure.GetExitCode();
  } catch (const std::exception& error) {
    details::Complain(error.what());
  }
  // The program ends without destroying anything, so what waits is written here.
  std::cout.flush();
  logging::SetSink(nullptr);
  return exit_code;
}

}  // namespace Tansy::Host
