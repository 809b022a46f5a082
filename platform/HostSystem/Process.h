// Functions by which a stand-alone program asks the operating system about itself.
#ifndef TANSY_HOST_SYSTEM_PROCESS_H
#define TANSY_HOST_SYSTEM_PROCESS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace HostSystem {

enum class ESignal {
  kStop,    // terminate or interrupt
  kReload,  // read files again that may have been replaced (never on Windows)
};

// Makes WaitForSignal receive the stop and reload signals, and has broken pipes ignored. It is called once, before any
// other thread is made, because threads inherit the setting.
void TakeSignals();
// Waits for the next of these signals. Only one thread may wait.
ESignal WaitForSignal();
// Does the same, but waits for this time at most; the result is empty when no signal came.
std::optional<ESignal> WaitForSignal(std::chrono::milliseconds patience);

// Returns true when the process was started to outlive its terminal (nohup).
bool IsHangupIgnored();

// Makes files and folders readable and writable for their owner only, from now on.
void MakeFilesPrivate();

// Lets the process open as many files and connections as the system allows. Returns that number; it is the largest
// number when there is no limit, or when the system does not say.
std::uint64_t RaiseOpenFileLimit();

// Lets all threads share a few heaps. With heaps of their own, each keeps tens of MiB that others have given back, and
// the process grows beyond what it has in use. Before threads are made.
void ShareHeaps();

std::string HostName();
// Gives a text that this machine has had since it was started, and no other machine has, a copy of it included. It is
// "" where the system has none.
std::string MachineStart();
// Gives the program's arguments in UTF-8, which on Windows `main` gets in the system's code page. `arguments` are those
// of `main`; where they are in UTF-8 already, they are the result. The result lives as long as the process.
char** ArgumentsInUtf8(int count, char** arguments);
// Gives an environment variable in UTF-8, or "" when there is none.
std::string Environment(const char* name);
// Returns true when there is such a variable, also when it is empty.
bool HasEnvironment(const char* name);

}  // namespace HostSystem

#endif  // TANSY_HOST_SYSTEM_PROCESS_H
