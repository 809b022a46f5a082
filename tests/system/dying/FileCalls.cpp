// These calls that change files are linked into a second tansyd. They do what a test wants to happen to a file system;
// the environment says what.
//
// DIE_WHEN: the process ends in front of a call. Calls are counted from the moment the file named by this variable
// appears; its content is the number of the call that is not made any more. With DIE_AFTER they are counted from the
// moment a file gets the name that it says. What the process had written by then is with the operating system, as
// it is after kill -9.
//
// FAIL_SYNC_AFTER and FAIL_SYNCS: when a file gets the name that the first says, the flushes of folders that follow
// fail, as many as the second says.
//
// SLOW_BELOW and SLOW_HOW: writes to files below the folder that the first names take long. The file that the second
// names holds the milliseconds, and the bytes from which on a write is slow; without the file none is. A write that
// waits looks at it again and again.
//
// The program exports these names, so that the shared libraries call them too.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::atomic<long> g_calls_left{0};    // so many calls are left until the end; 0 stands for not asked for yet
std::atomic<bool> g_is_named{false};  // the file of DIE_AFTER has its name
std::atomic<long> g_syncs_to_fail{0};
std::atomic<bool> g_has_failed_syncs{false};

struct Text {
  char bytes[32] = {};
};

Text ReadText(const char* path) {
  Text text;
  const int descriptor = path == nullptr ? -1 : ::open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor >= 0) {
    if (::read(descriptor, text.bytes, sizeof text.bytes - 1) < 0) {
      text = {};
    }
    ::close(descriptor);
  }
  return text;
}

// Says whether a variable of the environment has this value.
bool Is(const char* variable, const char* value) {
  const char* const wanted = std::getenv(variable);
  return wanted != nullptr && std::strcmp(wanted, value) == 0;
}

void CountCall() {
  if (g_calls_left == 0 && (g_is_named || std::getenv("DIE_AFTER") == nullptr)) {
    long expected = 0;
    const Text text = ReadText(std::getenv("DIE_WHEN"));
    g_calls_left.compare_exchange_strong(expected, std::strtol(text.bytes, nullptr, 10));
  }
  if (g_calls_left > 0 && --g_calls_left == 0) {
    ::kill(::getpid(), SIGKILL);
    for (;;) {
      ::pause();
    }
  }
}

bool FailsSync(int descriptor) {
  struct stat status = {};
  return g_syncs_to_fail > 0 && ::fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode) && g_syncs_to_fail-- > 0;
}

void NoteName(const char* name) {
  if (Is("DIE_AFTER", name)) {
    g_is_named = true;
  }
  if (Is("FAIL_SYNC_AFTER", name) && !g_has_failed_syncs.exchange(true)) {
    g_syncs_to_fail = std::strtol(std::getenv("FAIL_SYNCS"), nullptr, 10);
  }
}

bool IsSlow(int descriptor) {
  const char* const folder = std::getenv("SLOW_BELOW");
  if (folder == nullptr) {
    return false;
  }
  char link[64];
  char path[4096] = {};
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
  return ::readlink(link, path, sizeof path - 1) > 0 && std::strncmp(path, folder, std::strlen(folder)) == 0;
}

void WaitAsLongAsItIsSlow(int descriptor, std::size_t size) {
  constexpr long kStepMs = 20;
  if (!IsSlow(descriptor)) {
    return;
  }
  for (long waited = 0;; waited += kStepMs) {
    const Text text = ReadText(std::getenv("SLOW_HOW"));
    char* end = nullptr;
    const long milliseconds = std::strtol(text.bytes, &end, 10);
    if (waited >= milliseconds || size < std::strtoul(end, nullptr, 10)) {
      return;
    }
    ::usleep(kStepMs * 1000);
  }
}

// The function that would have been called without this one.
template <class Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

ssize_t pwrite(int descriptor, const void* data, std::size_t size, off_t offset) {
  static const auto next = Next<decltype(&pwrite)>("pwrite");
  CountCall();
  WaitAsLongAsItIsSlow(descriptor, size);
  return next(descriptor, data, size, offset);
}

ssize_t pwrite64(int descriptor, const void* data, std::size_t size, off64_t offset) {
  static const auto next = Next<decltype(&pwrite64)>("pwrite64");
  CountCall();
  WaitAsLongAsItIsSlow(descriptor, size);
  return next(descriptor, data, size, offset);
}

int fdatasync(int descriptor) {
  static const auto next = Next<decltype(&fdatasync)>("fdatasync");
  CountCall();
  return next(descriptor);
}

int fsync(int descriptor) {
  static const auto next = Next<decltype(&fsync)>("fsync");
  CountCall();
  if (FailsSync(descriptor)) {
    errno = EIO;
    return -1;
  }
  return next(descriptor);
}

int unlink(const char* path) noexcept {
  static const auto next = Next<decltype(&unlink)>("unlink");
  CountCall();
  return next(path);
}

int unlinkat(int folder, const char* path, int flags) noexcept {
  static const auto next = Next<decltype(&unlinkat)>("unlinkat");
  CountCall();
  return next(folder, path, flags);
}

int ftruncate64(int descriptor, off64_t size) noexcept {
  static const auto next = Next<decltype(&ftruncate64)>("ftruncate64");
  CountCall();
  return next(descriptor, size);
}

int renameat(int from_folder, const char* from, int to_folder, const char* to) noexcept {
  static const auto next = Next<decltype(&renameat)>("renameat");
  CountCall();
  const int result = next(from_folder, from, to_folder, to);
  NoteName(to);
  return result;
}
}
