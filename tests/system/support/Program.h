// A program that is run to its end, as a person or a script runs it: no shell between, its streams in our hands.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_PROGRAM_H
#define TANSY_TESTS_SYSTEM_SUPPORT_PROGRAM_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "support/Tansyd.h"

namespace system_tests {

// The tansy of this build.
std::string TansyPath();

struct Invocation {
  std::string program = TansyPath();
  std::vector<std::string> arguments;
  // Added to the tests' own, of which nothing that the program reads is passed on; HOME is the folder.
  std::map<std::string, std::string> environment;
  std::string folder;              // that it runs in
  std::string output;              // file that standard output goes to, such as /dev/full; empty: ours
  std::uint64_t largest_file = 0;  // bytes that a file may grow to; 0: no limit
  bool with_terminal = false;      // standard error is a terminal of 100 columns
  bool ignore_hangup = false;      // as nohup starts it
};

// One run, which ends with the thread that begins it at the latest. Standard input is a pipe that stays open until
// CloseInput or the end of the run is waited for.
class CProgram {
 public:
  explicit CProgram(const Invocation& invocation);
  ~CProgram();  // kills what runs
  CProgram(const CProgram&) = delete;
  CProgram& operator=(const CProgram&) = delete;

  // Writes all of it; false when the program does not take it.
  bool Feed(std::string_view bytes);
  void CloseInput();
  void Signal(int signal) const;
  bool IsRunning();
  pid_t GetPid() const { return pid_; }
  // What it has written so far.
  std::string Output() const;
  std::string Errors();
  // How many files or sockets it has open whose name in /proc contains this.
  std::size_t CountOpen(const std::string& name) const;

  // Closes its input and waits; a program that takes too long is killed, and that is a failure of the test.
  Ended WaitForEnd(std::chrono::seconds patience = kPatience);

 private:
  void ReadTerminal();

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;    // a file without a name
  int errors_ = -1;    // likewise, unless there is a terminal
  int terminal_ = -1;  // our end of it
  std::string terminal_text_;
};

// Runs it with this standard input.
Ended RunProgram(const Invocation& invocation, std::string_view input = {});

// Waits until `condition` is true; false when it never is.
bool WaitUntil(const std::function<bool()>& condition);

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_PROGRAM_H
