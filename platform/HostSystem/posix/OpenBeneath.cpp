#include "OpenBeneath.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>

#if defined(__linux__)
#include <linux/openat2.h>
#include <sys/syscall.h>
#endif

namespace HostSystem::details {
namespace {

bool IsPlainPath(const std::string& name) {
  std::size_t begin = 0;
  while (true) {
    const std::size_t slash = name.find('/', begin);
    const std::size_t end = slash == std::string::npos ? name.size() : slash;
    if (!IsPlainName(name.substr(begin, end - begin))) {
      return false;
    }
    if (slash == std::string::npos) {
      return true;
    }
    begin = slash + 1;
  }
}

#if defined(__linux__)
// openat2 opens the whole name with one call, on kernels that have it and where no sandbox forbids it.
std::atomic<bool> g_has_openat2{true};

bool TryOpenAt2(int folder, const std::string& name, int flags, unsigned int mode, int& descriptor, int& error) {
  if (!g_has_openat2.load(std::memory_order_relaxed)) {
    return false;
  }
  open_how how = {};
  how.flags = static_cast<decltype(how.flags)>(flags | O_CLOEXEC);
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  const long result = ::syscall(SYS_openat2, folder, name.c_str(), &how, sizeof how);
  if (result >= 0) {
    descriptor = static_cast<int>(result);
    error = 0;
    return true;
  }
  if (errno == ENOSYS || errno == EPERM) {
    // EPERM can also come from a sandbox that does not know the call. The portable way below finds out which it is.
    if (errno == ENOSYS) {
      g_has_openat2.store(false, std::memory_order_relaxed);
    }
    return false;
  }
  if (errno == EAGAIN) {
    return false;  // a folder was renamed meanwhile
  }
  error = errno;
  return true;
}
#endif

}  // namespace

bool IsPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

int WalkBeneath(int folder, const std::string& name, int flags, unsigned int mode, int& descriptor) {
  // Each part gets its NUL in its place, so that nothing is allocated while a folder on the way is open.
  std::string parts = name;
  std::replace(parts.begin(), parts.end(), '/', '\0');
  int current = folder;
  int error = 0;
  std::size_t begin = 0;
  while (error == 0) {
    const std::size_t slash = name.find('/', begin);
    const bool last = slash == std::string::npos;
    const int part_flags = last ? flags : O_RDONLY | O_DIRECTORY;
    const int next = ::openat(current, parts.c_str() + begin, part_flags | O_NOFOLLOW | O_CLOEXEC, mode);
    error = next < 0 ? errno : 0;
    if (current != folder) {
      ::close(current);
    }
    current = next;
    if (last) {
      break;
    }
    begin = slash + 1;
  }
  descriptor = current;
  return error;
}

int OpenBeneath(int folder, const std::string& name, int flags, unsigned int mode, int& descriptor) {
  if (!IsPlainPath(name)) {
    return EINVAL;
  }
#if defined(__linux__)
  int error = 0;
  if (TryOpenAt2(folder, name, flags, mode, descriptor, error)) {
    return error;
  }
#endif
  return WalkBeneath(folder, name, flags, mode, descriptor);
}

}  // namespace HostSystem::details
