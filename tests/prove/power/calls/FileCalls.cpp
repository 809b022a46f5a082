// A library that is loaded in front of all others (LD_PRELOAD): the calls that change files or read them, noted in a
// trace and let fail as a test wants it. What is not below the folder in TANSY_CALLS_ROOT is passed on as it is.
#include <fcntl.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "calls/Faults.h"
#include "calls/RealCalls.h"
#include "calls/Recorder.h"

namespace {

using prove::CRecorder;
using prove::Moved;
using prove::Next;
using prove::Verdict;

int Failed(int error) {
  errno = error;
  return -1;
}

// Keeps errno over what is done behind a call.
class CKeptErrno {
 public:
  CKeptErrno() : errno_(errno) {}
  ~CKeptErrno() { errno = errno_; }
  CKeptErrno(const CKeptErrno&) = delete;
  CKeptErrno& operator=(const CKeptErrno&) = delete;

 private:
  const int errno_;
};

struct stat StatOf(int folder, const char* path) {
  struct stat info = {};
  ::fstatat(folder, path, &info, AT_SYMLINK_NOFOLLOW);
  return info;
}

// A call that opens a path, by any of its names.
template <class Call>
int Open(int folder, const char* path, int flags, Call call) {
  CRecorder* recorder = CRecorder::Get();
  const CRecorder::Place place = recorder == nullptr ? CRecorder::Place{} : recorder->Locate(folder, path);
  if (place.folder == 0) {
    return call();
  }
  if (const Verdict verdict = prove::Count(prove::kCallOpen); verdict.error != 0) {
    return Failed(verdict.error);
  }
  if ((flags & (O_CREAT | O_TRUNC)) == 0) {
    return call();
  }
  const std::lock_guard lock(recorder->GetMutex());
  const struct stat before = StatOf(folder, path);
  const int descriptor = call();
  const CKeptErrno kept;
  if (descriptor >= 0 && before.st_ino == 0) {
    struct stat info = {};
    ::fstat(descriptor, &info);
    recorder->NoteCreate(place, info.st_ino, false);
  } else if (descriptor >= 0 && (flags & O_TRUNC) != 0 && before.st_size > 0) {
    recorder->NoteResize(before.st_ino, 0);
  }
  return descriptor;
}

// A call that reads `size` bytes.
template <class Call>
ssize_t Read(int descriptor, std::size_t size, Call call) {
  CRecorder* recorder = CRecorder::Get();
  if (recorder == nullptr || recorder->NodeOf(descriptor) == 0) {
    return call(size);
  }
  const Verdict verdict = prove::Count(prove::kCallRead);
  return verdict.error != 0 ? Failed(verdict.error) : call(Moved(verdict, size));
}

// A call that writes `size` bytes at an offset; -1: where the file's own position is.
template <class Call>
ssize_t Write(int descriptor, const void* data, std::size_t size, off_t offset, Call call) {
  CRecorder* recorder = CRecorder::Get();
  const std::uint64_t node = recorder == nullptr ? 0 : recorder->NodeOf(descriptor);
  if (node == 0) {
    return call(size);
  }
  const Verdict verdict = prove::Count(prove::kCallWrite);
  if (verdict.error != 0) {
    return verdict.is_told ? Failed(verdict.error) : static_cast<ssize_t>(size);
  }
  const std::lock_guard lock(recorder->GetMutex());
  off_t at = offset;
  if (offset < 0) {
    const bool appends = (::fcntl(descriptor, F_GETFL) & O_APPEND) != 0;
    at = ::lseek(descriptor, 0, appends ? SEEK_END : SEEK_CUR);
  }
  const ssize_t done = call(Moved(verdict, size));
  const CKeptErrno kept;
  if (done > 0) {
    recorder->NoteWrite(node, data, static_cast<std::size_t>(done), static_cast<std::uint64_t>(at));
  }
  return done;
}

// The same for several pieces, which become one.
template <class Call>
ssize_t WriteVector(int descriptor, const iovec* pieces, int count, off_t offset, Call call) {
  CRecorder* recorder = CRecorder::Get();
  if (recorder == nullptr || recorder->NodeOf(descriptor) == 0) {
    return call(pieces, count);
  }
  std::string joined;
  for (int i = 0; i < count; ++i) {
    joined.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
  }
  return Write(descriptor, joined.data(), joined.size(), offset, [&](std::size_t size) {
    const iovec whole = {joined.data(), size};
    return call(&whole, 1);
  });
}

template <class Call>
int Resize(int descriptor, Call call) {
  CRecorder* recorder = CRecorder::Get();
  const std::uint64_t node = recorder == nullptr ? 0 : recorder->NodeOf(descriptor);
  if (node == 0) {
    return call();
  }
  if (const Verdict verdict = prove::Count(prove::kCallResize); verdict.error != 0) {
    return Failed(verdict.error);
  }
  const std::lock_guard lock(recorder->GetMutex());
  struct stat before = {};
  ::fstat(descriptor, &before);
  const int result = call();
  const CKeptErrno kept;
  struct stat after = {};
  if (::fstat(descriptor, &after) == 0 && after.st_size != before.st_size) {
    recorder->NoteResize(node, static_cast<std::uint64_t>(after.st_size));
  }
  return result;
}

// Room that is asked for makes a file longer; room that is given back leaves zeros.
template <class Call>
int Allocate(int descriptor, int mode, off_t offset, off_t size, Call call) {
  CRecorder* recorder = CRecorder::Get();
  const std::uint64_t node = recorder == nullptr ? 0 : recorder->NodeOf(descriptor);
  const int result = Resize(descriptor, call);
  struct stat info = {};
  if (result == 0 && node != 0 && (mode & FALLOC_FL_PUNCH_HOLE) != 0 && ::fstat(descriptor, &info) == 0 &&
      offset < info.st_size) {
    const std::string zeros(static_cast<std::size_t>(std::min(size, info.st_size - offset)), '\0');
    const std::lock_guard lock(recorder->GetMutex());
    recorder->NoteWrite(node, zeros.data(), zeros.size(), static_cast<std::uint64_t>(offset));
  }
  return result;
}

// A disk takes its time, so that other threads go on meanwhile. Memory does not.
void TakeTime() {
  static const char* const text = std::getenv("TANSY_CALLS_SYNC_MICROSECONDS");
  static const unsigned longest = text == nullptr ? 0 : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
  if (longest > 0) {
    static thread_local std::minstd_rand random(std::random_device{}());
    ::usleep(1 + random() % longest);
  }
}

template <class Call>
int Sync(int descriptor, Call call) {
  CRecorder* recorder = CRecorder::Get();
  const std::uint64_t node = recorder == nullptr ? 0 : recorder->NodeOf(descriptor);
  if (node == 0) {
    return call();
  }
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(recorder->GetMutex());
    number = recorder->NoteSyncBegins(node);
  }
  // A sync that fails has written nothing that anybody may count on.
  const Verdict verdict = prove::Count(prove::kCallSync);
  TakeTime();
  const int result = verdict.error != 0 ? Failed(verdict.error) : call();
  const CKeptErrno kept;
  const std::lock_guard lock(recorder->GetMutex());
  recorder->NoteSyncEnds(node, number, result == 0 ? 0 : errno);
  return verdict.is_told ? result : 0;
}

template <class Call>
int MakeFolder(int folder, const char* path, Call call) {
  CRecorder* recorder = CRecorder::Get();
  const CRecorder::Place place = recorder == nullptr ? CRecorder::Place{} : recorder->Locate(folder, path);
  if (place.folder == 0) {
    return call();
  }
  if (const Verdict verdict = prove::Count(prove::kCallMakeFolder); verdict.error != 0) {
    return Failed(verdict.error);
  }
  const std::lock_guard lock(recorder->GetMutex());
  const int result = call();
  const CKeptErrno kept;
  if (result == 0) {
    recorder->NoteCreate(place, StatOf(folder, path).st_ino, true);
  }
  return result;
}

template <class Call>
int Remove(int folder, const char* path, Call call) {
  CRecorder* recorder = CRecorder::Get();
  const CRecorder::Place place = recorder == nullptr ? CRecorder::Place{} : recorder->Locate(folder, path);
  if (place.folder == 0) {
    return call();
  }
  if (const Verdict verdict = prove::Count(prove::kCallRemove); verdict.error != 0) {
    return Failed(verdict.error);
  }
  const std::lock_guard lock(recorder->GetMutex());
  const int result = call();
  const CKeptErrno kept;
  if (result == 0) {
    recorder->NoteRemove(place);
  }
  return result;
}

template <class Call>
int Rename(int from_folder, const char* from, int to_folder, const char* to, Call call) {
  CRecorder* recorder = CRecorder::Get();
  const CRecorder::Place source = recorder == nullptr ? CRecorder::Place{} : recorder->Locate(from_folder, from);
  if (source.folder == 0) {
    return call();
  }
  if (const Verdict verdict = prove::Count(prove::kCallRename); verdict.error != 0) {
    return Failed(verdict.error);
  }
  const std::lock_guard lock(recorder->GetMutex());
  const int result = call();
  const CKeptErrno kept;
  if (result == 0) {
    recorder->NoteRename(source, recorder->Locate(to_folder, to));
  }
  return result;
}

// What the C library writes on behalf of a stream is not seen, so the file is looked at behind each call that may have
// written it.
template <class Call>
int FinishStream(FILE* stream, bool closes, Call call) {
  CRecorder* recorder = CRecorder::Get();
  const int descriptor = stream == nullptr ? -1 : ::fileno(stream);
  const std::uint64_t node = recorder == nullptr || descriptor < 0 ? 0 : recorder->NodeOf(descriptor);
  if (node == 0 || (::fcntl(descriptor, F_GETFL) & O_ACCMODE) == O_RDONLY) {
    return call();
  }
  const Verdict verdict = prove::Count(prove::kCallWrite);
  const std::lock_guard lock(recorder->GetMutex());
  const int copy = closes ? ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0) : descriptor;
  const int result = call();
  const CKeptErrno kept;
  recorder->NoteContent(node, copy);
  if (closes) {
    ::close(copy);
  }
  return verdict.error != 0 ? Failed(verdict.error) : result;
}

int FlagsOf(const char* mode) {
  const std::string text = mode == nullptr ? "" : mode;
  if (text.find('w') != std::string::npos) {
    return O_CREAT | O_TRUNC;
  }
  return text.find('a') != std::string::npos ? O_CREAT : 0;
}

template <class Call>
FILE* OpenStream(const char* path, const char* mode, Call call) {
  FILE* stream = nullptr;
  Open(AT_FDCWD, path, FlagsOf(mode), [&] {
    stream = call();
    return stream == nullptr ? -1 : ::fileno(stream);
  });
  return stream;
}

mode_t ModeOf(int flags, va_list& rest) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(rest, mode_t) : 0;
}

}  // namespace

extern "C" {

#define NEXT(name) static const auto next = Next<decltype(&(name))>(#name)

#define OPEN(name)                                                               \
  int name(const char* path, int flags, ...) {                                   \
    static const auto next = Next<int (*)(const char*, int, ...)>(#name);        \
    va_list rest;                                                                \
    va_start(rest, flags);                                                       \
    const mode_t mode = ModeOf(flags, rest);                                     \
    va_end(rest);                                                                \
    return Open(AT_FDCWD, path, flags, [&] { return next(path, flags, mode); }); \
  }
#define OPENAT(name)                                                                   \
  int name(int folder, const char* path, int flags, ...) {                             \
    static const auto next = Next<int (*)(int, const char*, int, ...)>(#name);         \
    va_list rest;                                                                      \
    va_start(rest, flags);                                                             \
    const mode_t mode = ModeOf(flags, rest);                                           \
    va_end(rest);                                                                      \
    return Open(folder, path, flags, [&] { return next(folder, path, flags, mode); }); \
  }
OPEN(open)
OPEN(open64)
OPENAT(openat)
OPENAT(openat64)

// openat2 has no function of its own.
long syscall(long number, ...) noexcept {
  static const auto next = Next<long (*)(long, ...)>("syscall");
  va_list rest;
  va_start(rest, number);
  long values[6];
  for (long& value : values) {
    value = va_arg(rest, long);
  }
  va_end(rest);
  const auto call = [&] { return next(number, values[0], values[1], values[2], values[3], values[4], values[5]); };
  if (number != SYS_openat2) {
    return call();
  }
  const auto* how = reinterpret_cast<const open_how*>(values[2]);
  return Open(static_cast<int>(values[0]), reinterpret_cast<const char*>(values[1]), static_cast<int>(how->flags),
              [&] { return static_cast<int>(call()); });
}

#define READ_AT(name, offset_type)                                                                    \
  ssize_t name(int descriptor, void* data, size_t size, offset_type offset) {                         \
    NEXT(name);                                                                                       \
    return Read(descriptor, size, [&](size_t part) { return next(descriptor, data, part, offset); }); \
  }
READ_AT(pread, off_t)
READ_AT(pread64, off64_t)

ssize_t read(int descriptor, void* data, size_t size) {
  NEXT(read);
  return Read(descriptor, size, [&](size_t part) { return next(descriptor, data, part); });
}

#define WRITE_AT(name, offset_type)                                                                                  \
  ssize_t name(int descriptor, const void* data, size_t size, offset_type offset) {                                  \
    NEXT(name);                                                                                                      \
    return Write(descriptor, data, size, offset, [&](size_t part) { return next(descriptor, data, part, offset); }); \
  }
WRITE_AT(pwrite, off_t)
WRITE_AT(pwrite64, off64_t)

ssize_t write(int descriptor, const void* data, size_t size) {
  NEXT(write);
  return Write(descriptor, data, size, -1, [&](size_t part) { return next(descriptor, data, part); });
}

ssize_t writev(int descriptor, const iovec* pieces, int count) {
  NEXT(writev);
  return WriteVector(descriptor, pieces, count, -1,
                     [&](const iovec* whole, int number) { return next(descriptor, whole, number); });
}

#define WRITE_VECTOR_AT(name, offset_type)                                                                       \
  ssize_t name(int descriptor, const iovec* pieces, int count, offset_type offset) {                             \
    NEXT(name);                                                                                                  \
    return WriteVector(descriptor, pieces, count, offset,                                                        \
                       [&](const iovec* whole, int number) { return next(descriptor, whole, number, offset); }); \
  }
WRITE_VECTOR_AT(pwritev, off_t)
WRITE_VECTOR_AT(pwritev64, off64_t)

int ftruncate(int descriptor, off_t size) noexcept {
  NEXT(ftruncate);
  return Resize(descriptor, [&] { return next(descriptor, size); });
}
int ftruncate64(int descriptor, off64_t size) noexcept {
  NEXT(ftruncate64);
  return Resize(descriptor, [&] { return next(descriptor, size); });
}
int fallocate(int descriptor, int mode, off_t offset, off_t size) {
  NEXT(fallocate);
  return Allocate(descriptor, mode, offset, size, [&] { return next(descriptor, mode, offset, size); });
}
int fallocate64(int descriptor, int mode, off64_t offset, off64_t size) {
  NEXT(fallocate64);
  return Allocate(descriptor, mode, offset, size, [&] { return next(descriptor, mode, offset, size); });
}
// These give the error instead of setting errno.
int posix_fallocate(int descriptor, off_t offset, off_t size) {
  NEXT(posix_fallocate);
  int error = 0;
  const int result = Resize(descriptor, [&] { return error = next(descriptor, offset, size); });
  return result < 0 ? errno : error;
}
int posix_fallocate64(int descriptor, off64_t offset, off64_t size) {
  NEXT(posix_fallocate64);
  int error = 0;
  const int result = Resize(descriptor, [&] { return error = next(descriptor, offset, size); });
  return result < 0 ? errno : error;
}

int fsync(int descriptor) {
  NEXT(fsync);
  return Sync(descriptor, [&] { return next(descriptor); });
}
int fdatasync(int descriptor) {
  NEXT(fdatasync);
  return Sync(descriptor, [&] { return next(descriptor); });
}

int mkdir(const char* path, mode_t mode) noexcept {
  NEXT(mkdir);
  return MakeFolder(AT_FDCWD, path, [&] { return next(path, mode); });
}
int mkdirat(int folder, const char* path, mode_t mode) noexcept {
  NEXT(mkdirat);
  return MakeFolder(folder, path, [&] { return next(folder, path, mode); });
}

int unlink(const char* path) noexcept {
  NEXT(unlink);
  return Remove(AT_FDCWD, path, [&] { return next(path); });
}
int unlinkat(int folder, const char* path, int flags) noexcept {
  NEXT(unlinkat);
  return Remove(folder, path, [&] { return next(folder, path, flags); });
}
int rmdir(const char* path) noexcept {
  NEXT(rmdir);
  return Remove(AT_FDCWD, path, [&] { return next(path); });
}
int remove(const char* path) noexcept {
  NEXT(remove);
  return Remove(AT_FDCWD, path, [&] { return next(path); });
}

int rename(const char* from, const char* to) noexcept {
  NEXT(rename);
  return Rename(AT_FDCWD, from, AT_FDCWD, to, [&] { return next(from, to); });
}
int renameat(int from_folder, const char* from, int to_folder, const char* to) noexcept {
  NEXT(renameat);
  return Rename(from_folder, from, to_folder, to, [&] { return next(from_folder, from, to_folder, to); });
}
int renameat2(int from_folder, const char* from, int to_folder, const char* to, unsigned int flags) noexcept {
  NEXT(renameat2);
  return Rename(from_folder, from, to_folder, to, [&] { return next(from_folder, from, to_folder, to, flags); });
}

int linkat(int from_folder, const char* from, int to_folder, const char* to, int flags) noexcept {
  NEXT(linkat);
  CRecorder* recorder = CRecorder::Get();
  const CRecorder::Place place = recorder == nullptr ? CRecorder::Place{} : recorder->Locate(to_folder, to);
  if (place.folder == 0) {
    return next(from_folder, from, to_folder, to, flags);
  }
  const std::lock_guard lock(recorder->GetMutex());
  const int result = next(from_folder, from, to_folder, to, flags);
  const CKeptErrno kept;
  if (result == 0) {
    recorder->NoteLink(place, StatOf(to_folder, to).st_ino);
  }
  return result;
}

FILE* fopen(const char* path, const char* mode) {
  NEXT(fopen);
  return OpenStream(path, mode, [&] { return next(path, mode); });
}
FILE* fopen64(const char* path, const char* mode) {
  NEXT(fopen64);
  return OpenStream(path, mode, [&] { return next(path, mode); });
}
int fflush(FILE* stream) {
  NEXT(fflush);
  return FinishStream(stream, false, [&] { return next(stream); });
}
int fclose(FILE* stream) {
  NEXT(fclose);
  return FinishStream(stream, true, [&] { return next(stream); });
}
// It gives less than was asked for at the end of a file only, so no part of it is cut off.
size_t fread(void* data, size_t size, size_t count, FILE* stream) {
  NEXT(fread);
  size_t result = 0;
  Read(::fileno(stream), size * count, [&](size_t) {
    result = next(data, size, count, stream);
    return static_cast<ssize_t>(result);
  });
  return result;
}
ssize_t recv(int socket, void* data, size_t size, int flags) {
  NEXT(recv);
  const ssize_t done = next(socket, data, size, flags);
  if (CRecorder* recorder = CRecorder::Get(); recorder != nullptr && done > 0) {
    const CKeptErrno kept;
    recorder->LookAtReceived({static_cast<const char*>(data), static_cast<std::size_t>(done)});
  }
  return done;
}
}
