#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <set>
#include <utility>

#include "TansyBase/FileUtil.h"
#include "TansyBase/posix/NativePath.h"

namespace TansyBase {
namespace {

// The error codes of the Windows file functions.
enum FileError : std::uint32_t {
  kNone = 0,
  kFileNotFound = 2,
  kPathNotFound = 3,
  kTooManyOpenFiles = 4,
  kAccessDenied = 5,
  kInvalidHandle = 6,
  kNotEnoughMemory = 8,
  kWriteProtect = 19,
  kGeneralFailure = 31,
  kSharingViolation = 32,
  kDiskFull = 112,
  kInvalidName = 123,
  kNameTooLong = 206,
  kFileTooLarge = 223,
  kDeviceError = 1117,
};

FileError FromErrno(int error) {
  switch (error) {
    case ENOENT:
      return kFileNotFound;
    case ENOTDIR:
    case ELOOP:
      return kPathNotFound;
    case EMFILE:
    case ENFILE:
      return kTooManyOpenFiles;
    case EACCES:
    case EPERM:
    case EISDIR:
    case ENXIO:
      return kAccessDenied;
    case EBADF:
      return kInvalidHandle;
    case ENOMEM:
      return kNotEnoughMemory;
    case EROFS:
      return kWriteProtect;
    case ETXTBSY:
    case EWOULDBLOCK:
      return kSharingViolation;
    case ENOSPC:
    case EDQUOT:
      return kDiskFull;
    case ENAMETOOLONG:
      return kNameTooLong;
    case EFBIG:
      return kFileTooLarge;
    case EIO:
      return kDeviceError;
    default:
      return kGeneralFailure;
  }
}

int Descriptor(std::intptr_t handle) {
  return static_cast<int>(handle);
}

// Lists the files that this process has open. The system's own locks do not keep two openings of one process apart on
// every file system, and some file systems have no locks at all.
class COpenFiles {
 public:
  static COpenFiles& Instance() {
    static auto* const files = new COpenFiles;  // never destroyed: files may outlive the end of main
    return *files;
  }

  bool Add(const struct stat& status) {
    const std::lock_guard lock(mutex_);
    return files_.emplace(status.st_dev, status.st_ino).second;
  }

  void Remove(const struct stat& status) {
    const std::lock_guard lock(mutex_);
    files_.erase({status.st_dev, status.st_ino});
  }

 private:
  std::mutex mutex_;
  std::set<std::pair<dev_t, ino_t>> files_;  // guarded by mutex_
};

// Claims the open file for this opening alone.
FileError Claim(int descriptor) noexcept try {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) {
    return FromErrno(errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return kAccessDenied;
  }
  if (!COpenFiles::Instance().Add(status)) {
    return kSharingViolation;
  }
  if (flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    COpenFiles::Instance().Remove(status);
    return kSharingViolation;
  }
  return kNone;
} catch (const std::bad_alloc&) {
  return kNotEnoughMemory;
}

}  // namespace

std::uint32_t CLocalFile::OpenAlways(const std::string& utf8_path) {
  Close();
  if (utf8_path.empty()) {
    return kPathNotFound;
  }
  if (!IsPlainPath(utf8_path)) {
    return kInvalidName;
  }
  // O_NONBLOCK and O_NOCTTY matter for paths that are no regular file. Those are refused below, but opening them must
  // not hang.
  const int descriptor =
      open(NativePath(utf8_path).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666);
  if (descriptor < 0) {
    // A missing file would have been made, so ENOENT means that a folder on the way to it is missing.
    return errno == ENOENT ? kPathNotFound : FromErrno(errno);
  }
  if (const FileError error = Claim(descriptor); error != kNone) {
    close(descriptor);
    return error;
  }
  handle_ = descriptor;
  return kNone;
}

std::uint32_t CLocalFile::GetSize(std::uint32_t& low_size, std::uint32_t* high_size) const {
  struct stat status {};
  if (!IsOpen() || fstat(Descriptor(handle_), &status) != 0) {
    return IsOpen() ? FromErrno(errno) : kInvalidHandle;
  }
  low_size = static_cast<std::uint32_t>(status.st_size & 0xFFFFFFFF);
  if (high_size != nullptr) {
    *high_size = static_cast<std::uint32_t>(status.st_size >> 32);
  }
  return kNone;
}

std::uint32_t CLocalFile::Read(void* buffer, std::uint32_t size, std::uint32_t& done) {
  done = 0;
  if (!IsOpen()) {
    return kInvalidHandle;
  }
  while (done < size) {
    const ssize_t count = read(Descriptor(handle_), static_cast<char*>(buffer) + done, size - done);
    if (count == 0) {
      break;
    }
    if (count > 0) {
      done += static_cast<std::uint32_t>(count);
    } else if (errno != EINTR) {
      return FromErrno(errno);
    }
  }
  return kNone;
}

std::uint32_t CLocalFile::Write(const void* data, std::uint32_t size, std::uint32_t& done) {
  done = 0;
  if (!IsOpen()) {
    return kInvalidHandle;
  }
  while (done < size) {
    const ssize_t count = write(Descriptor(handle_), static_cast<const char*>(data) + done, size - done);
    if (count >= 0) {
      done += static_cast<std::uint32_t>(count);
    } else if (errno != EINTR) {
      return FromErrno(errno);
    }
  }
  return kNone;
}

void CLocalFile::Close() {
  if (!IsOpen()) {
    return;
  }
  const int descriptor = Descriptor(std::exchange(handle_, kInvalid));
  struct stat status {};
  const bool known = fstat(descriptor, &status) == 0;
  // The entry is removed first, because the system may give the same number to another file once the descriptor is
  // closed.
  if (known) {
    COpenFiles::Instance().Remove(status);
  }
  close(descriptor);
}

}  // namespace TansyBase
