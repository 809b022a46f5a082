#include "HostSystem/Process.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <cstdlib>
#include <limits>

namespace HostSystem {
namespace details {
namespace {

HANDLE g_stop_event = nullptr;

BOOL WINAPI OnConsoleEvent(DWORD /*event*/) {
  ::SetEvent(g_stop_event);
  return TRUE;
}

}  // namespace
}  // namespace details

void TakeSignals() {
  details::g_stop_event = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  ::SetConsoleCtrlHandler(&details::OnConsoleEvent, TRUE);
}

ESignal WaitForSignal() {
  ::WaitForSingleObject(details::g_stop_event, INFINITE);
  return ESignal::kStop;
}

std::optional<ESignal> WaitForSignal(std::chrono::milliseconds patience) {
  const DWORD result = ::WaitForSingleObject(details::g_stop_event, static_cast<DWORD>(patience.count()));
  return result == WAIT_OBJECT_0 ? std::optional(ESignal::kStop) : std::nullopt;
}

bool IsHangupIgnored() {
  return false;
}

// Nothing is to be done, because files inherit their permissions from the folder in which they are made.
void MakeFilesPrivate() {}

std::uint64_t RaiseOpenFileLimit() {
  return std::numeric_limits<std::uint64_t>::max();
}

// This system's threads share one heap.
void ShareHeaps() {}

std::string HostName() {
  char name[256] = {};
  DWORD size = sizeof name;
  return ::GetComputerNameExA(ComputerNameDnsHostname, name, &size) ? name : "";
}

std::string Environment(const char* name) {
  char value[32768];
  const DWORD size = ::GetEnvironmentVariableA(name, value, sizeof value);
  return size > 0 && size < sizeof value ? std::string(value, size) : "";
}

bool HasEnvironment(const char* name) {
  ::SetLastError(ERROR_SUCCESS);
  return ::GetEnvironmentVariableA(name, nullptr, 0) != 0 || ::GetLastError() != ERROR_ENVVAR_NOT_FOUND;
}

}  // namespace HostSystem
