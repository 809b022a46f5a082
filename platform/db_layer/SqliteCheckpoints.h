// Copies the write-ahead log of one database file into the database, on a thread of its own.
#ifndef TANSY_DB_LAYER_SQLITE_CHECKPOINTS_H
#define TANSY_DB_LAYER_SQLITE_CHECKPOINTS_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace db_layer {

// Writers go on while the log is copied. SQLite begins a log anew only when nothing of it is left to be copied, and
// somebody who writes without a pause always adds to it; once the log is long, the rest is therefore copied between two
// commits. When the disk takes the copy more slowly than writers add to the log, they wait for the end of the copy.
// Threads: one at a time calls WaitForRoom and Note.
class CSqliteCheckpoints {
 public:
  static constexpr int kWorthwhile = 1000;  // pages in the log from which it is copied
  static constexpr int kLong = 8192;        // pages from which the rest is copied between two commits
  static constexpr int kTooLong = 16384;    // pages from which writers wait

  // Copies what can be copied and gives the number of pages that are left; negative on failure.
  using Copy = std::function<int()>;

  // `writing` is held by whoever commits.
  CSqliteCheckpoints(Copy copy, std::mutex& writing);
  // Waits for the thread.
  ~CSqliteCheckpoints();
  CSqliteCheckpoints(const CSqliteCheckpoints&) = delete;
  CSqliteCheckpoints& operator=(const CSqliteCheckpoints&) = delete;

  // Waits while the log is too long. To be called before each commit, without `writing`. When the log cannot be copied
  // wholly, for example because somebody reads it, nobody waits again before as much has come again.
  void WaitForRoom();
  // Tells how many pages the log has after a commit. The caller holds `writing`. When there is no thread to be had, the
  // log is copied here.
  void Note(int pages) noexcept;

 private:
  bool HasThread() noexcept;
  void RunThread();
  int CopyLog(int pages) noexcept;

  const Copy copy_;
  std::mutex& writing_;
  std::mutex mutex_;
  std::condition_variable changed_;
  // Everything below is guarded by mutex_.
  int pages_ = 0;         // in the log, as far as is known
  bool is_due_ = false;   // the log is to be copied
  bool is_busy_ = false;  // it is being copied
  int wait_from_ = kTooLong;
  bool stops_ = false;
  std::thread thread_;
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_SQLITE_CHECKPOINTS_H
