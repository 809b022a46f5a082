// What a stand-alone program asks of the operating system about itself.
#ifndef TANSY_HOST_SYSTEM_PROCESS_H
#define TANSY_HOST_SYSTEM_PROCESS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace HostSystem {

enum class ESignal {
  kStop,    // terminate or interrupt
  kReload,  // read again what may have been replaced (never on Windows)
};

// Takes charge of the stop and reload signals and has broken pipes ignored. Called once, before any other thread is
// made: threads inherit it.
void TakeSignals();
// Waits for the next of them. One thread.
ESignal WaitForSignal();
// The same, for so long at most; empty when none came.
std::optional<ESignal> WaitForSignal(std::chrono::milliseconds patience);

// True when whoever started the process wants it to outlive its terminal (nohup).
bool IsHangupIgnored();

// Files and folders made from now on are for their owner only.
void MakeFilesPrivate();

// Lets the process open as many files and connections as the system allows it to. Returns how many that are; the
// largest number when there is no limit, or when the system does not say.
std::uint64_t RaiseOpenFileLimit();

std::string HostName();
// An environment variable, or "" when there is none.
std::string Environment(const char* name);
// True when there is such a variable, also an empty one.
bool HasEnvironment(const char* name);

}  // namespace HostSystem

#endif  // TANSY_HOST_SYSTEM_PROCESS_H
