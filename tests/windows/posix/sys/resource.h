#ifndef TANSY_TESTS_WINDOWS_SYS_RESOURCE_H
#define TANSY_TESTS_WINDOWS_SYS_RESOURCE_H

// This system has no such limits.
#define RLIMIT_FSIZE 1
#define RLIMIT_NPROC 6
#define RLIMIT_NOFILE 7

using rlim_t = unsigned long long;
struct rlimit {
  rlim_t rlim_cur;
  rlim_t rlim_max;
};
inline int getrlimit(int, rlimit*) {
  return tansy_no_such_call();
}
inline int setrlimit(int, const rlimit*) {
  return tansy_no_such_call();
}

#endif  // TANSY_TESTS_WINDOWS_SYS_RESOURCE_H
