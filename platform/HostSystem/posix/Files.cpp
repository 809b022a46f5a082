#include "HostSystem/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "OpenBeneath.h"

namespace HostSystem {
namespace details {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
constexpr mode_t kUsualFileMode = 0666;  // of which the process's mask takes away
constexpr mode_t kUsualFolderMode = 0777;
// What one call writes at the most. For more, the file system looks for large blocks of memory that are still in one
// piece. On a virtual machine the host then has to provide them first: a call with 4 MiB took up to six times as long.
constexpr std::size_t kMaxWrite = std::size_t{128} << 10;

class CFile final : public IFile {
 public:
  explicit CFile(int descriptor) : descriptor_(descriptor) {}
  ~CFile() override { ::close(descriptor_); }

  int WriteAt(const char* data, std::size_t size, std::uint64_t offset) override {
    while (size > 0) {
      const ssize_t done = ::pwrite(descriptor_, data, std::min(size, kMaxWrite), static_cast<off_t>(offset));
      if (done < 0) {
        if (errno == EINTR) {
          continue;
        }
        return errno;
      }
      data += done;
      size -= static_cast<std::size_t>(done);
      offset += static_cast<std::uint64_t>(done);
    }
    return 0;
  }

  int ReadAt(char* data, std::size_t size, std::uint64_t offset, std::size_t& done) override {
    done = 0;
    while (done < size) {
      const ssize_t got = ::pread(descriptor_, data + done, size - done, static_cast<off_t>(offset + done));
      if (got < 0) {
        if (errno == EINTR) {
          continue;
        }
        return errno;
      }
      if (got == 0) {
        break;
      }
      done += static_cast<std::size_t>(got);
    }
    return 0;
  }

  int GetSize(std::uint64_t& size) override {
    struct stat info = {};
    if (::fstat(descriptor_, &info) != 0) {
      return errno;
    }
    size = static_cast<std::uint64_t>(info.st_size);
    return 0;
  }

  void StartWriteOut(std::uint64_t offset, std::uint64_t size) override {
#if defined(__linux__)
    ::sync_file_range(descriptor_, static_cast<off_t>(offset), static_cast<off_t>(size), SYNC_FILE_RANGE_WRITE);
#else
    static_cast<void>(offset);
    static_cast<void>(size);
#endif
  }

  void FreeRange(std::uint64_t offset, std::uint64_t size) override {
#if defined(__linux__)
    static_cast<void>(::fallocate(descriptor_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                                  static_cast<off_t>(size)));
#else
    static_cast<void>(offset);
    static_cast<void>(size);
#endif
  }

  int Sync() override {
    return ::fdatasync(descriptor_) == 0 ? 0 : errno;
  }

 private:
  int descriptor_;
};

// Makes the object that closes the descriptor from here on. When there is no memory for it, the descriptor is closed at
// once.
template <typename Owner, typename... More>
std::unique_ptr<Owner> Own(int descriptor, More... more) {
  try {
    return std::make_unique<Owner>(descriptor, more...);
  } catch (const std::bad_alloc&) {
    ::close(descriptor);
    throw;
  }
}

struct CloseStream {
  void operator()(DIR* stream) const { ::closedir(stream); }
};
struct FreeText {
  void operator()(char* text) const { std::free(text); }
};

FolderEntry MakeEntry(int folder, const char* name) {
  FolderEntry entry;
  entry.name = name;
  struct stat info = {};
  if (::fstatat(folder, name, &info, AT_SYMLINK_NOFOLLOW) == 0) {
    entry.is_folder = S_ISDIR(info.st_mode);
    entry.is_file = S_ISREG(info.st_mode);
    entry.size = static_cast<std::uint64_t>(info.st_size);
    entry.modified = info.st_mtime;
  } else {
    entry.error = errno;
  }
  return entry;
}

class CFolder final : public IFolder {
 public:
  CFolder(int descriptor, EAccess access) : descriptor_(descriptor), access_(access) {}
  ~CFolder() override { ::close(descriptor_); }

  int Create(const std::string& name, std::unique_ptr<IFile>& file) override {
    return OpenFile(name, O_RDWR | O_CREAT | O_EXCL, file);
  }
  int OpenForReading(const std::string& name, std::unique_ptr<IFile>& file) override {
    return OpenFile(name, O_RDONLY, file);
  }
  int OpenForWriting(const std::string& name, std::unique_ptr<IFile>& file) override {
    return OpenFile(name, O_RDWR, file);
  }

  int OpenFolder(const std::string& name, std::unique_ptr<IFolder>& folder) override {
    int descriptor = -1;
    const int error = OpenBeneath(descriptor_, name, O_RDONLY | O_DIRECTORY, 0, descriptor);
    if (error == 0) {
      folder = Own<CFolder>(descriptor, access_);
    }
    return error;
  }

  int MakeFolder(const std::string& name) override {
    const mode_t mode = access_ == EAccess::kUsual ? kUsualFolderMode : kFolderMode;
    return InParent(name, [mode](int parent, const char* last) { return ::mkdirat(parent, last, mode); });
  }

  int Rename(const std::string& from, const std::string& to) override {
    if (!IsPlainName(from) || !IsPlainName(to)) {
      return EINVAL;
    }
    return ::renameat(descriptor_, from.c_str(), descriptor_, to.c_str()) == 0 ? 0 : errno;
  }

  int Link(const std::string& from, const std::string& to) override {
    return InParent(from, [this, &to](int from_parent, const char* from_last) {
      const int error = InParent(to, [from_parent, from_last](int to_parent, const char* to_last) {
        return ::linkat(from_parent, from_last, to_parent, to_last, 0);
      });
      errno = error;
      return error == 0 ? 0 : -1;
    });
  }

  int Remove(const std::string& name) override {
    return InParent(name, [](int parent, const char* last) { return ::unlinkat(parent, last, 0); });
  }
  int RemoveFolder(const std::string& name) override {
    return InParent(name, [](int parent, const char* last) { return ::unlinkat(parent, last, AT_REMOVEDIR); });
  }

  int List(std::vector<FolderEntry>& entries) override {
    const int copy = ::openat(descriptor_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (copy < 0) {
      return errno;
    }
    const std::unique_ptr<DIR, CloseStream> stream(::fdopendir(copy));
    if (stream == nullptr) {
      const int error = errno;
      ::close(copy);
      return error;
    }
    errno = 0;
    while (const dirent* item = ::readdir(stream.get())) {
      if (std::strcmp(item->d_name, ".") != 0 && std::strcmp(item->d_name, "..") != 0) {
        entries.push_back(MakeEntry(descriptor_, item->d_name));
      }
      errno = 0;
    }
    return errno;
  }

  int GetRoom(std::uint64_t& total, std::uint64_t& available) override {
    struct statvfs info = {};
    if (::fstatvfs(descriptor_, &info) != 0) {
      return errno;
    }
    total = std::uint64_t{info.f_blocks} * info.f_frsize;
    available = std::uint64_t{info.f_bavail} * info.f_frsize;
    return 0;
  }

  int Sync() override { return ::fsync(descriptor_) == 0 ? 0 : errno; }

 private:
  int OpenFile(const std::string& name, int flags, std::unique_ptr<IFile>& file) const {
    int descriptor = -1;
    const mode_t mode = access_ == EAccess::kUsual ? kUsualFileMode : kFileMode;
    const int error = OpenBeneath(descriptor_, name, flags, mode, descriptor);
    if (error == 0) {
      file = Own<CFile>(descriptor);
    }
    return error;
  }

  // Runs `action` with the descriptor of the folder that holds the last part of `name`, and with that last part.
  template <typename Action>
  int InParent(const std::string& name, Action action) const {
    const std::size_t slash = name.rfind('/');
    if (slash == std::string::npos) {
      return IsPlainName(name) ? (action(descriptor_, name.c_str()) == 0 ? 0 : errno) : EINVAL;
    }
    const std::string last = name.substr(slash + 1);
    if (!IsPlainName(last)) {
      return EINVAL;
    }
    int parent = -1;
    if (const int error = OpenBeneath(descriptor_, name.substr(0, slash), O_RDONLY | O_DIRECTORY, 0, parent)) {
      return error;
    }
    const int result = action(parent, last.c_str()) == 0 ? 0 : errno;
    ::close(parent);
    return result;
  }

  int descriptor_;
  EAccess access_;
};

std::string ParentOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

int SyncFolderAt(const std::string& path) {
  int error = 0;
  const std::unique_ptr<IFolder> folder = HostSystem::OpenFolder(path, error);
  return folder == nullptr ? error : folder->Sync();
}

int MakeOneFolder(const std::string& path) {
  if (::mkdir(path.c_str(), kFolderMode) != 0) {
    const int error = errno;
    // Any folder at this path will do, also one that another process has just made.
    return error == EEXIST && GetPathKind(path) == EPathKind::kFolder ? 0 : error;
  }
  return SyncFolderAt(ParentOf(path));
}

}  // namespace

FilePlace FindPlace(const std::string& path) {
  const std::unique_ptr<char, FreeText> resolved(::realpath(path.c_str(), nullptr));
  const std::string target = resolved == nullptr ? path : resolved.get();
  return {ParentOf(target), target.substr(target.find_last_of('/') + 1)};
}

}  // namespace details

std::unique_ptr<IFolder> OpenFolder(const std::string& path, int& error, EAccess access) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) {
    error = errno;
    return nullptr;
  }
  error = 0;
  return details::Own<details::CFolder>(descriptor, access);
}

int OpenFileForReading(const std::string& path, std::unique_ptr<IFile>& file) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) {
    return errno;
  }
  file = details::Own<details::CFile>(descriptor);
  return 0;
}

int MakeFolders(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string prefix = path.substr(0, slash);
    if (GetPathKind(prefix) == EPathKind::kMissing) {
      if (const int error = details::MakeOneFolder(prefix)) {
        return error;
      }
    }
  }
  return details::MakeOneFolder(path);
}

EPathKind GetPathKind(const std::string& path) {
  struct stat info = {};
  if (::stat(path.c_str(), &info) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? EPathKind::kMissing : EPathKind::kOther;
  }
  if (S_ISDIR(info.st_mode)) {
    return EPathKind::kFolder;
  }
  return S_ISREG(info.st_mode) ? EPathKind::kFile : EPathKind::kOther;
}

bool IsReadableByOthers(const std::string& path) {
  struct stat info = {};
  return ::stat(path.c_str(), &info) == 0 && (info.st_mode & (S_IRGRP | S_IROTH)) != 0;
}

bool IsOwnedByAnother(const std::string& path) {
  struct stat info = {};
  return ::stat(path.c_str(), &info) == 0 && info.st_uid != ::geteuid();
}

std::string AbsolutePath(const std::string& path) {
  if (!path.empty() && path.front() == '/') {
    return path;
  }
  const std::unique_ptr<char, details::FreeText> current(::getcwd(nullptr, 0));
  if (current == nullptr) {
    return path;
  }
  std::string result = current.get();
  if (result.back() != '/') {
    result += '/';
  }
  return result + path;
}

int ChangeFolder(const std::string& path) {
  return ::chdir(path.c_str()) == 0 ? 0 : errno;
}

bool IsNoSpace(int error) {
  return error == ENOSPC || error == EDQUOT;
}

}  // namespace HostSystem
