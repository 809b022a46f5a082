// What tests take from POSIX headers and this system's C library lacks. Every test source is compiled with it. Headers
// that are missing altogether are in posix/.
//
// Calls that have no equal here fail with ENOSYS. Cases that need them are named in left_out/, with the reason.
#ifndef TANSY_TESTS_WINDOWS_POSIX_H
#define TANSY_TESTS_WINDOWS_POSIX_H

#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

#ifndef SIGPIPE
#define SIGPIPE 13
#endif
#ifndef SIGKILL
#define SIGKILL 9
#endif
#ifndef SIGSTOP
#define SIGSTOP 19
#endif
#ifndef SIGCONT
#define SIGCONT 18
#endif
#ifndef SIGXFSZ
#define SIGXFSZ 25
#endif
#ifndef SIG_BLOCK
#define SIG_BLOCK 0
#endif

#ifndef O_CLOEXEC
#define O_CLOEXEC O_NOINHERIT
#endif

#define F_GETFD 1
#define F_SETFD 2
#define F_SETFL 4
#define F_SETPIPE_SZ 1031
#define FD_CLOEXEC 1
#define O_NONBLOCK 0x4000000

#ifndef EDQUOT
#define EDQUOT ENOSPC  // a quota that is used up has no code of its own here
#endif
#ifndef S_IRWXG
#define S_IRWXG 0070
#endif
#ifndef S_IRWXO
#define S_IRWXO 0007
#endif
#ifndef S_IRGRP
#define S_IRGRP 0040
#endif
#ifndef S_IROTH
#define S_IROTH 0004
#endif

using uid_t = unsigned;
using gid_t = unsigned;

extern "C" {
char* mkdtemp(char* pattern);
int setenv(const char* name, const char* value, int overwrite);
int unsetenv(const char* name);
int gettid(void);
// A pair of connected sockets, so that poll takes them.
int pipe(int ends[2]);
// Knows F_GETFD alone, for files and sockets.
int fcntl(int handle, int command, ...);
}

using tansy_sigset = unsigned long long;
#define sigset_t tansy_sigset
inline int sigemptyset(sigset_t* signals) {
  *signals = 0;
  return 0;
}
inline int sigaddset(sigset_t* signals, int signal) {
  *signals |= 1ULL << signal;
  return 0;
}

// Nothing but sockets could raise SIGPIPE, and here they do not.
#undef pthread_sigmask
inline int pthread_sigmask(int, const sigset_t*, sigset_t*) {
  return 0;
}

inline int tansy_no_such_call() {
  errno = ENOSYS;
  return -1;
}
inline pid_t fork() {
  return tansy_no_such_call();
}
inline int kill(pid_t, int) {
  return tansy_no_such_call();
}
inline uid_t geteuid() {
  return 1;
}
inline int seteuid(uid_t) {
  return tansy_no_such_call();
}
inline int setuid(uid_t) {
  return tansy_no_such_call();
}
inline int symlink(const char*, const char*) {
  return tansy_no_such_call();
}
inline int mkdir(const char* path, int) {
  return ::mkdir(path);
}
inline int mkfifo(const char*, int) {
  return tansy_no_such_call();
}
inline unsigned alarm(unsigned) {
  return 0;
}

#endif  // TANSY_TESTS_WINDOWS_POSIX_H
