#ifndef TANSY_BASE_FILE_UTIL_H
#define TANSY_BASE_FILE_UTIL_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace TansyBase {

// Files and folders. Paths are UTF-8; "\\" in them counts as a separator on every system: on POSIX it is turned into
// "/" here, the one place that hands a path to the operating system. Any thread.
class FileUtil {
 public:
  // The folder of the running program, with the separator at its end. On POSIX "./": a host runs in its data folder,
  // and making the folders of an absolute path would start with the empty prefix before its first separator.
  static std::string GetCurExeDirUtf8();

  static bool Exists(const std::string& path);
  // Makes one folder. 0, or errno.
  static int MakeDirectory(const std::string& path);
  // Removes one file. 0, or errno (a missing file is an error).
  static int RemoveFile(const std::string& path);
  // Puts one file in the place of another, of the same folder or a missing one. After a crash the place holds the old
  // file or the new one, never a mixture, and after 0 was returned the new one. What `from` holds must have been
  // flushed before. 0, or errno; `from` then still exists.
  static int MoveOver(const std::string& from, const std::string& to);
  // Waits until everything that was written to the file is on stable storage. 0, or errno.
  static int Flush(std::FILE* file);
  // As fopen, but no child process gets the file. Null, and errno set, on failure; otherwise for the caller to fclose.
  static std::FILE* OpenFile(const std::string& path, const char* mode);
};

// A local file with the meaning of the Windows file functions: opened without sharing, so that a second open of the
// same file in this process or another fails, with that system's error codes on every system (2 not found, 3 path not
// found, 5 access denied, 32 sharing violation, 112 disk full, ...). One thread at a time.
class CLocalFile {
 public:
  CLocalFile() = default;
  ~CLocalFile() = default;  // leaves the file open: owners that want it closed call Close
  CLocalFile(const CLocalFile&) = delete;
  CLocalFile& operator=(const CLocalFile&) = delete;

  // Read and write access, no sharing; a file that is missing is made, an existing one is kept as it is (OPEN_ALWAYS).
  // 0, or the system's error code.
  std::uint32_t OpenAlways(const std::string& utf8_path);
  bool IsOpen() const { return handle_ != kInvalid; }

  // Low 32 bits of the size and, where asked for, the high ones. 0, or the error code.
  std::uint32_t GetSize(std::uint32_t& low_size, std::uint32_t* high_size = nullptr) const;
  // Reads at the current position; `done` may be short at the end of the file. 0, or the error code.
  std::uint32_t Read(void* buffer, std::uint32_t size, std::uint32_t& done);
  // Writes at the current position. 0, or the error code; `done` says how much was written either way.
  std::uint32_t Write(const void* data, std::uint32_t size, std::uint32_t& done);
  void Close();

 private:
  static constexpr std::intptr_t kInvalid = -1;
  std::intptr_t handle_ = kInvalid;
};

}  // namespace TansyBase

#endif  // TANSY_BASE_FILE_UTIL_H
