#include "HostSystem/LockFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

namespace HostSystem {
namespace details {
namespace {

// Whoever asks IsTakenByAnybody has the lock for a moment. A lock that is free otherwise is had at one of these
// tries.
constexpr int kTries = 30;
constexpr std::chrono::milliseconds kBetweenTries{10};

bool LockForGood(int descriptor, int kind) {
  for (int i = 1; ::flock(descriptor, kind | LOCK_NB) != 0; ++i) {
    if (errno != EWOULDBLOCK || i == kTries) {
      return false;
    }
    std::this_thread::sleep_for(kBetweenTries);
  }
  return true;
}

// Opens and locks the file that has this name now. Returns 0, EBUSY, another errno value, or ESTALE when somebody has
// taken the file away meanwhile: its lock then keeps nobody out, because others make a new file.
int TakeOnce(const std::string& path, int kind, int& descriptor) {
  descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) {
    return errno;
  }
  int error = 0;
  struct stat locked = {};
  struct stat named = {};
  if (!LockForGood(descriptor, kind)) {
    error = errno == EWOULDBLOCK ? EBUSY : errno;
  } else if (::fstat(descriptor, &locked) != 0 || ::lstat(path.c_str(), &named) != 0) {
    error = errno == ENOENT ? ESTALE : errno;
  } else if (locked.st_dev != named.st_dev || locked.st_ino != named.st_ino) {
    error = ESTALE;
  }
  if (error != 0) {
    ::close(descriptor);
  }
  return error;
}

}  // namespace
}  // namespace details

CLockFile::~CLockFile() {
  if (IsTaken()) {
    ::close(static_cast<int>(handle_));
  }
}

int CLockFile::Take(const std::string& path) {
  return Acquire(path, false);
}

int CLockFile::Share(const std::string& path) {
  return Acquire(path, true);
}

int CLockFile::Acquire(const std::string& path, bool is_shared) {
  const int kind = is_shared ? LOCK_SH : LOCK_EX;
  int descriptor = -1;
  int error = details::TakeOnce(path, kind, descriptor);
  for (int i = 1; error == ESTALE && i < details::kTries; ++i) {
    error = details::TakeOnce(path, kind, descriptor);
  }
  if (error != 0) {
    return error == ESTALE ? EBUSY : error;
  }
  handle_ = descriptor;
  // The id is only for people who look at the file, and the lock is what counts. So a full disk is no reason to fail.
  const std::string id = std::to_string(::getpid()) + "\n";
  if (::ftruncate(descriptor, 0) == 0 && ::pwrite(descriptor, id.data(), id.size(), 0) < 0) {
    return 0;
  }
  return 0;
}

bool CLockFile::IsTakenByAnybody(const std::string& path) {
  bool is_taken = false;
  return Look(path, is_taken) == 0 && is_taken;
}

int CLockFile::Look(const std::string& path, bool& is_taken) {
  is_taken = false;
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (descriptor < 0) {
    return errno == ENOENT ? 0 : errno;
  }
  // A shared lock is seen by trying to have it alone, which somebody else who asks may prevent for a moment.
  const bool is_had = ::flock(descriptor, LOCK_SH | LOCK_NB) == 0 && details::LockForGood(descriptor, LOCK_EX);
  const int error = is_had ? 0 : errno;
  ::close(descriptor);
  is_taken = error == EWOULDBLOCK;
  return is_taken ? 0 : error;
}

}  // namespace HostSystem
