// These calls that change files are linked into a second tansyd. They end the process in front of one of them.
//
// Calls are counted from the moment the file named by the environment variable DIE_WHEN appears; its content is the
// number of the call that is not made any more. What the process had written by then is with the operating system, as
// it is after kill -9. The program exports these names, so that the shared libraries call them too.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>

namespace {

std::atomic<long> g_calls_left{0};  // so many calls are left until the end; 0 stands for not asked for yet

long ReadNumber(const char* path) {
  const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return 0;
  }
  char text[16] = {};
  const ssize_t size = ::read(descriptor, text, sizeof text - 1);
  ::close(descriptor);
  return size > 0 ? std::strtol(text, nullptr, 10) : 0;
}

void CountCall() {
  if (g_calls_left == 0) {
    const char* path = std::getenv("DIE_WHEN");
    long expected = 0;
    g_calls_left.compare_exchange_strong(expected, path == nullptr ? 0 : ReadNumber(path));
  }
  if (g_calls_left > 0 && --g_calls_left == 0) {
    ::kill(::getpid(), SIGKILL);
    for (;;) {
      ::pause();
    }
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
  return next(descriptor, data, size, offset);
}

ssize_t pwrite64(int descriptor, const void* data, std::size_t size, off64_t offset) {
  static const auto next = Next<decltype(&pwrite64)>("pwrite64");
  CountCall();
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
  return next(from_folder, from, to_folder, to);
}
}
