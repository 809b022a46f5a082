// Linked into a tansyd of its own: a server that keeps something of its connections, or of its files. The environment
// variable LEAK says what, with commas between: memory, descriptor, thread, space. The program exports these names, so
// that the shared libraries call them.
#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

constexpr std::size_t kLeakedBytes = 256 * 1024;
constexpr int kOneIn = 3;

void* volatile g_leaked = nullptr;

bool Leaks(const char* what, std::atomic<int>& counter) {
  static const char* const leak = std::getenv("LEAK");
  return leak != nullptr && std::strstr(leak, what) != nullptr && ++counter % kOneIn == 0;
}

void LeakBeside(int descriptor) {
  static std::atomic<int> descriptors{0};
  static std::atomic<int> threads{0};
  static std::atomic<int> memory{0};
  if (descriptor < 0) {
    return;
  }
  if (Leaks("descriptor", descriptors)) {
    ::dup(descriptor);
  }
  if (Leaks("thread", threads)) {
    std::thread([] {
      for (;;) {
        ::pause();
      }
    }).detach();
  }
  if (Leaks("memory", memory)) {
    g_leaked = std::malloc(kLeakedBytes);
    std::memset(g_leaked, 1, kLeakedBytes);
  }
}

template <class Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int accept(int listener, sockaddr* address, socklen_t* size) {
  static const auto next = Next<decltype(&accept)>("accept");
  const int descriptor = next(listener, address, size);
  LeakBeside(descriptor);
  return descriptor;
}

int accept4(int listener, sockaddr* address, socklen_t* size, int flags) {
  static const auto next = Next<decltype(&accept4)>("accept4");
  const int descriptor = next(listener, address, size, flags);
  LeakBeside(descriptor);
  return descriptor;
}

int unlinkat(int folder, const char* path, int flags) noexcept {
  static const auto next = Next<decltype(&unlinkat)>("unlinkat");
  static std::atomic<int> files{0};
  return Leaks("space", files) ? 0 : next(folder, path, flags);
}
}
