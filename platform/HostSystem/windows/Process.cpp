#include "HostSystem/Process.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// shellapi.h needs windows.h before it
#include <shellapi.h>

#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

namespace HostSystem {
namespace details {
namespace {

HANDLE g_stop_event = nullptr;

BOOL WINAPI OnConsoleEvent(DWORD /*event*/) {
  ::SetEvent(g_stop_event);
  return TRUE;
}

std::string ToUtf8(const std::wstring& wide) {
  const int length = static_cast<int>(wide.size());
  const int size = ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(size), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, utf8.data(), size, nullptr, nullptr);
  return utf8;
}

std::wstring ToWide(const std::string& utf8) {
  const int length = static_cast<int>(utf8.size());
  const int size = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), length, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(size), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), length, wide.data(), size);
  return wide;
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

std::string MachineStart() {
  return {};
}

std::string HostName() {
  char name[256] = {};
  DWORD size = sizeof name;
  return ::GetComputerNameExA(ComputerNameDnsHostname, name, &size) ? name : "";
}

// The system's own division of the command line is used only when it is the same as that of `main`'s library.
char** ArgumentsInUtf8(int count, char** arguments) {
  int wide_count = 0;
  LPWSTR* const wide = ::CommandLineToArgvW(::GetCommandLineW(), &wide_count);
  if (wide == nullptr || wide_count != count) {
    return arguments;
  }
  static std::vector<std::string> texts;
  static std::vector<char*> pointers;
  for (int i = 0; i < count; ++i) {
    texts.push_back(details::ToUtf8(wide[i]));
  }
  ::LocalFree(wide);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers.data();
}

std::string Environment(const char* name) {
  std::wstring value(32768, L'\0');  // the longest that the system knows
  const DWORD size = ::GetEnvironmentVariableW(details::ToWide(name).c_str(), value.data(), 32768);
  value.resize(size < 32768 ? size : 0);
  return details::ToUtf8(value);
}

bool HasEnvironment(const char* name) {
  ::SetLastError(ERROR_SUCCESS);
  return ::GetEnvironmentVariableW(details::ToWide(name).c_str(), nullptr, 0) != 0 ||
         ::GetLastError() != ERROR_ENVVAR_NOT_FOUND;
}

}  // namespace HostSystem
