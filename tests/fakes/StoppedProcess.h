// Stops a process for a test that wants one that says nothing.
#ifndef TANSY_TESTS_FAKES_STOPPED_PROCESS_H
#define TANSY_TESTS_FAKES_STOPPED_PROCESS_H

#include <signal.h>
#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>

namespace Tansy::Tests {

// Says whether each thread of a process stands still, or is gone.
inline bool IsStopped(pid_t process) {
  std::error_code error;
  const std::filesystem::directory_iterator threads("/proc/" + std::to_string(process) + "/task", error);
  return error || std::all_of(begin(threads), end(threads), [](const std::filesystem::directory_entry& thread) {
           std::ifstream file(thread.path() / "stat");
           const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
           const std::size_t name_end = text.rfind(')');
           return name_end == std::string::npos || text.compare(name_end, 3, ") T") == 0;
         });
}

// Returns when the process stands still: on a busy machine it may go on for a while after the signal. Returns false
// when it does not within a generous time.
inline bool StopProcess(pid_t process) {
  if (::kill(process, SIGSTOP) != 0) {
    return false;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!IsStopped(process) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return IsStopped(process);
}

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_STOPPED_PROCESS_H
