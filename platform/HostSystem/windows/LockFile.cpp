#include "HostSystem/LockFile.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "WindowsError.h"

namespace HostSystem {
namespace details {
namespace {

// Whoever asks whether a lock is taken has the file open for a moment, in which it cannot be opened for writing.
constexpr int kTries = 20;
constexpr DWORD kPauseMs = 5;

HANDLE OpenLocked(const std::filesystem::path& file, DWORD others) {
  HANDLE handle = INVALID_HANDLE_VALUE;
  for (int i = 0; i < kTries; ++i) {
    handle = ::CreateFileW(file.c_str(), GENERIC_WRITE, others, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle != INVALID_HANDLE_VALUE || ::GetLastError() != ERROR_SHARING_VIOLATION) {
      return handle;
    }
    ::Sleep(kPauseMs);
  }
  ::SetLastError(ERROR_SHARING_VIOLATION);
  return handle;
}

}  // namespace
}  // namespace details

CLockFile::~CLockFile() {
  if (IsTaken()) {
    ::CloseHandle(reinterpret_cast<HANDLE>(handle_));
  }
}

int CLockFile::Take(const std::string& path) {
  return Acquire(path, false);
}

int CLockFile::Share(const std::string& path) {
  return Acquire(path, true);
}

int CLockFile::Acquire(const std::string& path, bool is_shared) {
  // Others may read the file, but nobody else may open it for writing, except those who let each other. This is the
  // lock. Its holder may remove the file, which then goes with the lock at the latest.
  const std::filesystem::path file(std::u8string(path.begin(), path.end()));
  const DWORD others = FILE_SHARE_READ | FILE_SHARE_DELETE | (is_shared ? FILE_SHARE_WRITE : 0);
  const HANDLE handle = details::OpenLocked(file, others);
  if (handle == INVALID_HANDLE_VALUE) {
    return LastErrno();
  }
  handle_ = reinterpret_cast<std::intptr_t>(handle);
  const std::string id = std::to_string(::GetCurrentProcessId()) + "\n";
  DWORD written = 0;
  ::SetEndOfFile(handle);
  ::WriteFile(handle, id.data(), static_cast<DWORD>(id.size()), &written, nullptr);
  return 0;
}

bool CLockFile::IsTakenByAnybody(const std::string& path) {
  bool is_taken = false;
  return Look(path, is_taken) == 0 && is_taken;
}

int CLockFile::Look(const std::string& path, bool& is_taken) {
  is_taken = false;
  const std::filesystem::path file(std::u8string(path.begin(), path.end()));
  const HANDLE handle = ::CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    is_taken = ::GetLastError() == ERROR_SHARING_VIOLATION;
    const int error = is_taken ? 0 : LastErrno();
    return error == ENOENT ? 0 : error;
  }
  ::CloseHandle(handle);
  return 0;
}

}  // namespace HostSystem
