#include "HostSystem/LockFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace HostSystem {

CLockFile::~CLockFile() {
  if (IsTaken()) {
    ::close(static_cast<int>(handle_));
  }
}

int CLockFile::Take(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) {
    return errno;
  }
  if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    ::close(descriptor);
    return error == EWOULDBLOCK ? EBUSY : error;
  }
  handle_ = descriptor;
  // The id is for people who look; the lock is what counts, so a full disk is no reason to fail.
  const std::string id = std::to_string(::getpid()) + "\n";
  if (::ftruncate(descriptor, 0) == 0 && ::pwrite(descriptor, id.data(), id.size(), 0) < 0) {
    return 0;
  }
  return 0;
}

bool CLockFile::IsTakenByAnybody(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (descriptor < 0) {
    return false;
  }
  const bool is_taken = ::flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(descriptor);
  return is_taken;
}

}  // namespace HostSystem
