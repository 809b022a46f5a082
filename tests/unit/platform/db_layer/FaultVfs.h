// Stands between SQLite and the file system: makes the disk full, read-only or unreliable, counts and holds up waits
// for stable storage, and plays power failures.
#ifndef TANSY_TESTS_DB_LAYER_FAULT_VFS_H
#define TANSY_TESTS_DB_LAYER_FAULT_VFS_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace db_layer {

// Every file that SQLite opens while this object lives uses it, on any thread. Only one may live at a time.
class CFaultVfs {
 public:
  CFaultVfs();
  ~CFaultVfs();
  CFaultVfs(const CFaultVfs&) = delete;
  CFaultVfs& operator=(const CFaultVfs&) = delete;

  // These are SQLite's result codes; 0 stands for no failure.
  std::atomic<int> write_failure{0};
  // A sync that fails makes nothing durable, and no later sync makes up for it.
  std::atomic<int> sync_failure{0};
  std::atomic<int> database_sync_failure{0};  // the same, but not for write-ahead logs
  std::atomic<int> read_failure{0};
  std::atomic<bool> is_read_only{false};
  std::atomic<int> log_syncs{0};       // of write-ahead logs
  std::atomic<int> database_syncs{0};  // of other files, that have succeeded
  std::atomic<int> failed_syncs{0};

  // The first sync of a write-ahead log from here on stands still until ReleaseSync; WaitForHeldSync returns when it
  // does.
  void HoldNextSync();
  void WaitForHeldSync();
  void ReleaseSync();

  // From here on every access fails. What was not synced is lost, kept or torn, as `random` has it.
  void CutPower(std::mt19937& random);
  // Leaves the files as the power failure left them. All connections have to be closed.
  void RestorePower();

  // What the files' methods tell.
  int BeforeWrite(const std::string& path, std::int64_t offset, const void* data, int size);
  int BeforeTruncate(const std::string& path, std::int64_t size);
  // A sync takes what was written before it began, not what comes meanwhile: `last_change` goes from one to the other.
  int BeforeSync(const std::string& path, std::uint64_t& last_change);
  int AfterSync(const std::string& path, std::uint64_t last_change);
  int BeforeRead() const;
  void Opened(const std::string& path);
  void Deleted(const std::string& path);
  bool HasPower() const { return has_power_; }

 private:
  // A write, or with `size` a change of length.
  struct Change {
    std::uint64_t number = 0;  // of all files, in order
    std::int64_t offset = 0;
    std::string data;
    std::optional<std::int64_t> size;
  };
  struct File {
    std::string durable;
    std::vector<Change> pending;
  };

  static void Apply(std::string& content, const Change& change);

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool holds_next_sync_ = false;
  bool is_held_ = false;
  std::atomic<bool> has_power_{true};
  std::uint64_t changes_ = 0;
  std::map<std::string, File> files_;
  std::map<std::string, std::string> after_failure_;
};

}  // namespace db_layer

#endif  // TANSY_TESTS_DB_LAYER_FAULT_VFS_H
