#ifndef TANSY_TESTS_WINDOWS_SYS_WAIT_H
#define TANSY_TESTS_WINDOWS_SYS_WAIT_H

// What std::system gives is the exit code itself.
#define WIFEXITED(status) true
#define WEXITSTATUS(status) (status)

inline pid_t waitpid(pid_t, int*, int) {
  return static_cast<pid_t>(tansy_no_such_call());
}

#endif  // TANSY_TESTS_WINDOWS_SYS_WAIT_H
