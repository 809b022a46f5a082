// Processes that tests start.
#ifndef TANSY_TESTS_FAKES_CHILD_PROCESS_H
#define TANSY_TESTS_FAKES_CHILD_PROCESS_H

#include <signal.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "fakes/TempFolder.h"

namespace Tansy::Tests {

// For the child of a fork, which becomes a program: it gets the signal when the thread that made it ends, so that a
// test that is killed leaves nothing behind. `parent` is the process that forked. Whoever changes the user of the
// child does that before, because the system forgets the signal then.
inline void EndWithParent(pid_t parent, int signal = SIGKILL) {
  ::prctl(PR_SET_PDEATHSIG, signal);
  if (::getppid() != parent) {
    ::_exit(95);  // it has ended already
  }
}

// The processes that the main thread of a process has made.
inline std::vector<pid_t> ChildrenOf(pid_t process) {
  const std::string pid = std::to_string(process);
  std::istringstream numbers(ReadFile("/proc/" + pid + "/task/" + pid + "/children"));
  std::vector<pid_t> children;
  for (pid_t child = 0; numbers >> child;) {
    children.push_back(child);
  }
  return children;
}

// False for a process that has ended, also when nobody has asked for its end yet.
inline bool IsAlive(pid_t process) {
  const std::string text = ReadFile("/proc/" + std::to_string(process) + "/stat");
  const std::size_t name_end = text.rfind(") ");
  return name_end != std::string::npos && text[name_end + 2] != 'Z' && text[name_end + 2] != 'X';
}

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_CHILD_PROCESS_H
