#ifndef TANSY_BASE_FILE_UTIL_H
#define TANSY_BASE_FILE_UTIL_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace TansyBase {

// Files and folders. Paths are UTF-8. A "\\" in a path counts as a separator on every system: on POSIX it is turned
// into "/" here, because only this place hands paths to the operating system. Threads: any.
class FileUtil {
 public:
  // Gives the folder of the running program, with the separator at its end. On POSIX it is "./": a host runs in its
  // data folder, and making the folders of an absolute path would start with the empty prefix before its first
  // separator.
  static std::string GetCurExeDirUtf8();
  // Gives another folder for it, with the separator at its end: a host whose data does not lie beside its program names
  // the data's folder. An empty text takes that back. Call it before the servers start.
  static void SetCurExeDirUtf8(const std::string& folder);

  static bool Exists(const std::string& path);
  // Makes one folder. Returns 0 or errno.
  static int MakeDirectory(const std::string& path);
  // Makes one folder unless something of that name is there. Once 0 was returned, the name is on stable storage, so
  // that a power failure does not take away what lies in the folder. Returns 0 or errno.
  static int EnsureDirectory(const std::string& path);
  // Removes one file. Returns 0 or errno (a missing file is an error).
  static int RemoveFile(const std::string& path);
  // Removes one file unless it is missing. Once 0 was returned, its name is gone from stable storage too, so that a
  // power failure does not bring it back. Returns 0 or errno.
  static int EnsureRemoved(const std::string& path);
  // Moves a file to the place of another in the same folder, which may be missing. After a crash the place holds either
  // the old file or the new one, never a mixture; once 0 was returned, it holds the new one. The content of `from` must
  // have been flushed before. Returns 0 or errno; after an error `from` still exists.
  static int MoveOver(const std::string& from, const std::string& to);
  // Waits until everything that was written to the file is on stable storage. Returns 0 or errno.
  static int Flush(std::FILE* file);
  // Opens like fopen, but no child process inherits the file. On failure it returns null and sets errno; otherwise the
  // caller closes the file with fclose.
  static std::FILE* OpenFile(const std::string& path, const char* mode);
};

// A local file that behaves like the Windows file functions: it is opened without sharing, so that a second open of the
// same file in this process or another fails. Errors are the codes of Windows on every system (2 not found, 3 path not
// found, 5 access denied, 32 sharing violation, 112 disk full, ...). Threads: one at a time.
class CLocalFile {
 public:
  CLocalFile() = default;
  ~CLocalFile() = default;  // leaves the file open: an owner that wants it closed calls Close
  CLocalFile(const CLocalFile&) = delete;
  CLocalFile& operator=(const CLocalFile&) = delete;

  // Opens for reading and writing, without sharing. A file that is missing is made; an existing file is kept as it is
  // (OPEN_ALWAYS). Returns 0 or the system's error code.
  std::uint32_t OpenAlways(const std::string& utf8_path);
  bool IsOpen() const { return handle_ != kInvalid; }

  // Gives the low 32 bits of the size and, unless `high_size` is null, the high ones. Returns 0 or the error code.
  std::uint32_t GetSize(std::uint32_t& low_size, std::uint32_t* high_size = nullptr) const;
  // Reads at the current position; `done` may be less than `size` at the end of the file. Returns 0 or the error code.
  std::uint32_t Read(void* buffer, std::uint32_t size, std::uint32_t& done);
  // Writes at the current position. Returns 0 or the error code; `done` says how much was written in both cases.
  std::uint32_t Write(const void* data, std::uint32_t size, std::uint32_t& done);
  void Close();

 private:
  static constexpr std::intptr_t kInvalid = -1;
  std::intptr_t handle_ = kInvalid;
};

}  // namespace TansyBase

#endif  // TANSY_BASE_FILE_UTIL_H
