#ifndef TANSY_HOST_SYSTEM_LOCK_FILE_H
#define TANSY_HOST_SYSTEM_LOCK_FILE_H

#include <cstdint>
#include <string>

namespace HostSystem {

// A file whose lock says that a process is at work. The system releases the lock when the process ends, however it
// ends; the file stays, unless the holder of the lock removes it. Threads: one.
class CLockFile {
 public:
  CLockFile() = default;
  ~CLockFile();
  CLockFile(const CLockFile&) = delete;
  CLockFile& operator=(const CLockFile&) = delete;

  // Makes the file when it is missing, takes its lock without waiting and writes this process's id into it. Returns 0,
  // EBUSY when another process holds the lock, or another errno value.
  int Take(const std::string& path);
  // The same, but beside others that share the lock; one that was taken alone is not shared.
  int Share(const std::string& path);
  bool IsTaken() const { return handle_ != kNone; }
  // Says whether any process holds the lock of this file, without changing anything. The answer is false for a missing
  // file.
  static bool IsTakenByAnybody(const std::string& path);
  // The same, for those who must not take a lock that they cannot look at for a free one: returns 0 and sets
  // `is_taken`, or an errno value.
  static int Look(const std::string& path, bool& is_taken);

 private:
  int Acquire(const std::string& path, bool is_shared);

  static constexpr std::intptr_t kNone = -1;
  std::intptr_t handle_ = kNone;
};

}  // namespace HostSystem

#endif  // TANSY_HOST_SYSTEM_LOCK_FILE_H
