#include "db_layer/SqliteCheckpoints.h"

#include <exception>
#include <utility>

#include "OSAL/Osal.h"

namespace db_layer {

CSqliteCheckpoints::CSqliteCheckpoints(Copy copy, std::mutex& writing) : copy_(std::move(copy)), writing_(writing) {}

CSqliteCheckpoints::~CSqliteCheckpoints() {
  {
    const std::lock_guard lock(mutex_);
    stops_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) {
    thread_.join();
  }
}

void CSqliteCheckpoints::WaitForRoom() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return pages_ < wait_from_ || !(is_due_ || is_busy_); });
}

void CSqliteCheckpoints::Note(int pages) noexcept {
  if (pages < kWorthwhile) {
    return;
  }
  if (!HasThread()) {
    copy_();
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    pages_ = pages;
    is_due_ = true;
  }
  changed_.notify_all();
}

bool CSqliteCheckpoints::HasThread() noexcept {
  if (!thread_.joinable()) {
    try {
      thread_ = std::thread(&CSqliteCheckpoints::RunThread, this);
    } catch (const std::exception&) {
      return false;  // the next long log asks again
    }
  }
  return true;
}

void CSqliteCheckpoints::RunThread() {
  OSAL_SetThreadName("tansy-checkpt");
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stops_ || is_due_; });
    if (stops_) {
      return;
    }
    is_due_ = false;
    is_busy_ = true;
    const int pages = pages_;
    lock.unlock();
    const int left = CopyLog(pages);
    lock.lock();
    is_busy_ = false;
    if (left == 0) {
      wait_from_ = kTooLong;
      if (!is_due_) {  // otherwise a commit has told meanwhile how long the log is, and it may still grow
        pages_ = 0;
      }
    } else if (pages >= kLong) {
      // Not even between two commits: somebody reads the log, or the disk fails.
      wait_from_ = pages_ + kTooLong;
    }
    changed_.notify_all();
  }
}

int CSqliteCheckpoints::CopyLog(int pages) noexcept {
  const int left = copy_();
  if (pages < kLong || left <= 0) {
    return left;
  }
  copy_();  // most of what has come meanwhile, so that the next commit waits for little
  const std::lock_guard writing(writing_);
  return copy_();
}

}  // namespace db_layer
