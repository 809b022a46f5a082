#include "Host.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BackupVerify.h"
#include "CommandLine.h"
#include "ConfigCommand.h"
#include "DatabaseUrl.h"
#include "HostLog.h"
#include "HostSystem/Process.h"
#include "HostSystem/ServiceManager.h"
#include "ListeningFile.h"
#include "Restore.h"
#include "Server.h"
#include "ServiceWatchdog.h"
#include "SignalThread.h"
#include "StartFailure.h"
#include "TansyNet/HttpServer.h"

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

// Lets `say` write to the log and to the standard streams, for some seconds at the most: a pipe that nobody empties
// must not keep the process. When no thread can be had for it, nothing is said.
void SayBriefly(std::function<void()> say) {
  constexpr std::chrono::seconds kPatience{2};
  try {
    const auto said = std::make_shared<std::promise<void>>();
    std::thread([said, say = std::move(say)] {
      say();
      said->set_value();
    }).detach();
    said->get_future().wait_for(kPatience);
  } catch (const std::exception&) {
    return;
  }
}

void SayWhyItEnds(CSignalThread::EEnd why, const std::string& work) {
  if (why == CSignalThread::EEnd::kStillStarting) {
    Complain("stopped before " + (work.empty() ? "it was ready" : "the " + work + " was over"));
  } else {
    const char* cause = why == CSignalThread::EEnd::kSecondSignal ? "a second signal came" : "stopping took too long";
    HOST_LOG(logging::kError, "[%s]%s, what still ran was cut off.[%s(%d)]", cause);
    Complain(std::string(cause) + ", what still ran was cut off");
  }
  std::cout.flush();
  logging::SetSink(nullptr);
}

// Ends the process from the signal thread. Nothing is destroyed, because other threads are at work.
[[noreturn]] void EndNow(CSignalThread::EEnd why, const std::string& work) {
  const bool is_start = why == CSignalThread::EEnd::kStillStarting;
  if (!is_start) {
    RemoveListeningFile();
  }
  SayBriefly([why, work] { SayWhyItEnds(why, work); });
  std::_Exit(is_start && work.empty() ? kExitDone : kExitFailed);
}

// The server takes this number of connections when the system lets it; the files of requests come on top.
constexpr std::uint64_t kEnoughOpenFiles = 12000;

void NoteOpenFileLimit(std::uint64_t limit) {
  if (limit < kEnoughOpenFiles) {
    HOST_LOG(logging::kNotable,
             "[%s]no more than %llu files and connections can be open at once: raise the hard limit (ulimit -n) to "
             "serve more clients.[%s(%d)]",
             static_cast<unsigned long long>(limit));
  }
}

// The service manager may have opened ports, so that clients who come during a new start wait for its end.
void TakePortsOfServiceManager() {
  const std::string trouble = TansyNet::CHttpServer::OfferSockets(HostSystem::TakeServiceSockets());
  if (!trouble.empty()) {
    throw CStartFailure(kExitFailed, "sockets of the service manager: " + trouble);
  }
}

void NoteUnusedPorts() {
  for (const std::string& name : TansyNet::CHttpServer::UnusedSockets()) {
    HOST_LOG(logging::kError, "[%s]the service manager's socket of %s is served by nobody.[%s(%d)]", name.c_str());
  }
}

// Null when the service manager does not want to hear anything.
std::unique_ptr<CServiceWatchdog> BeginWatchdog() {
  const std::optional<std::chrono::microseconds> period = HostSystem::WatchdogPeriod();
  if (!period.has_value()) {
    return nullptr;
  }
  auto watchdog = std::make_unique<CServiceWatchdog>(
      *period, [](std::chrono::milliseconds patience) { return TansyNet::CHttpServer::DoLoopsAnswer(patience); },
      [] { HostSystem::TellServiceManager(HostSystem::EServiceState::kAlive); });
  watchdog->Begin();
  return watchdog;
}

void ServeUntilStop(CServer& server, CSignalThread& signals) {
  using HostSystem::EServiceState;
  const auto watchdog = BeginWatchdog();
  HostSystem::TellServiceManager(EServiceState::kReady);
  while (signals.Wait() == HostSystem::ESignal::kReload) {
    HostSystem::TellServiceManager(EServiceState::kReloading);
    server.Reload();
    HostSystem::TellServiceManager(EServiceState::kReady);
  }
  HostSystem::TellServiceManager(EServiceState::kStopping);
}

int Serve(const CommandLine& command_line) {
  HostSystem::ShareHeaps();
  CSignalThread signals([](std::chrono::milliseconds patience) { return HostSystem::WaitForSignal(patience); },
                        [&](CSignalThread::EEnd why) { EndNow(why, command_line.Work()); }, {});
  const std::uint64_t open_files = HostSystem::RaiseOpenFileLimit();
  if (!command_line.config_work.empty()) {
    return RunConfigCommand(command_line, std::cout);
  }
  if (command_line.restore) {
    return RestoreBackup(command_line.backup_path, command_line.texts, std::cout);
  }
  if (command_line.backup_verify) {
    return VerifyBackup(command_line.backup_path, std::cout);
  }
  CServer server(command_line);
  NoteOpenFileLimit(open_files);
  if (command_line.check) {
    return server.Check(command_line);
  }
  if (command_line.check_upgrade) {
    return server.CheckUpgrade();
  }
  if (command_line.move) {
    return server.Move(command_line);
  }
  if (command_line.backup) {
    return server.Backup(command_line);
  }
  server.Start();
  signals.SetServing();
  NoteUnusedPorts();
  std::cout << server.ReadyLine() << std::endl;
  ServeUntilStop(server, signals);
  server.Stop();
  return kExitDone;
}

}  // namespace
}  // namespace details

int Run(int argc, char** argv) {
  int exit_code = kExitFailed;
  try {
    const CommandLine command_line = ParseCommandLine(argc, argv);
    HidePasswords(argc, argv);
    if (!command_line.print_only.empty()) {
      std::cout << command_line.print_only << std::flush;
      return kExitDone;
    }
    HostSystem::TakeSignals();
    HostSystem::MakeFilesPrivate();
    details::TakePortsOfServiceManager();
    exit_code = details::Serve(command_line);
  } catch (const CStartFailure& failure) {
    details::Complain(failure.what());
    exit_code = failure.GetExitCode();
  } catch (const std::exception& error) {
    details::Complain(error.what());
  }
  // The program ends without destroying anything, so output that still waits is written here.
  std::cout.flush();
  logging::SetSink(nullptr);
  return exit_code;
}

}  // namespace Tansy::Host
