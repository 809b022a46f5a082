#include "Interrupt.h"

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Failure.h"
#include "HostSystem/Process.h"
#include "KeptDownload.h"
#include "PartialFile.h"
#include "TreeFile.h"

namespace Tansy::Cli {

void EndCleanlyOnInterrupt() {
  HostSystem::TakeSignals();
  const bool hangup_ignored = HostSystem::IsHangupIgnored();
  std::thread([hangup_ignored] {
    // When the program was started to outlive its terminal, a hang-up is no reason to end.
    while (HostSystem::WaitForSignal() == HostSystem::ESignal::kReload && hangup_ignored) {
    }
    CPartialFile::RemoveAll();
    CTreeFile::RemoveAll();
    CKeptDownload::SaveAll();
    std::fputs("\ntansy: interrupted\n", stderr);
    // Other threads are in the middle of transfers, and nothing in the process is worth waiting for.
    std::_Exit(kExitInterrupted);
  }).detach();
}

}  // namespace Tansy::Cli
