#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CLEAN_EXPIRED_TASK_THREAD_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CLEAN_EXPIRED_TASK_THREAD_H

#include <atomic>
#include <cstdint>

#include "Singleton.h"
#include "TansyBase/SingleBaseThread.h"

namespace Tansy::CloudStorage {

// Forgets multipart upload tasks whose lowest-numbered part was last written more than three days ago. It does so once
// at its start, then once a day in the hour after midnight (UTC), provided that it is started with a period of an hour.
// Stored bytes and temporary files stay. Uploads in parts of the S3 protocol go with them (PartUploads.h), for the
// first time when that server has started. When somebody sets the clock, in either direction, no task becomes older or
// younger.
class CCleanExpiredTaskThread : public TansyBase::CSingleBaseThread {
 public:
  static CCleanExpiredTaskThread& Instance();

  CCleanExpiredTaskThread() : CSingleBaseThread("tansy-sweep") {}
  ~CCleanExpiredTaskThread() override;

  // Is called once per period, by one thread at a time.
  void OnTimer() override;

  // How often tasks were swept, and how many were removed. Threads: any.
  std::uint64_t Sweeps() const { return sweeps_.load(std::memory_order_relaxed); }
  std::uint64_t SweptTasks() const { return swept_tasks_.load(std::memory_order_relaxed); }

 private:
  void SweepTasks();

  std::atomic<std::uint64_t> sweeps_{0};
  std::atomic<std::uint64_t> swept_tasks_{0};
  bool has_run_ = false;
  bool has_run_for_uploads_ = false;  // their server may start later than this thread
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CLEAN_EXPIRED_TASK_THREAD_H
