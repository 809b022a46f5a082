#ifndef TANSY_BASE_MESSAGE_LOOP_H
#define TANSY_BASE_MESSAGE_LOOP_H

#include <cstddef>
#include <memory>

#include "TansyBase/Noncopyable.h"

namespace TansyBase {

// One piece of work for a message loop. The poster allocates it with new. From PostTask on, the loop owns it and
// deletes it after Exec, or without Exec when it is dropped. An exception that leaves Exec is caught by the loop and
// logged.
class CTask {
 public:
  virtual ~CTask() = default;
  virtual void Exec() = 0;
};

// A queue of tasks run by a pool of threads whose number grows and shrinks between two bounds.
//
// Order: tasks start in the order in which they were posted. Tasks posted before the first Start wait and run once it
// is called; tasks posted after Stop are deleted at once without being run. Start after Stop begins again. Threads:
// every member may be called from any thread. When a task of the loop itself calls Stop, the call returns without
// waiting for that task.
class CMessageLoopDyThreadPool : private CNoncopyable {
 public:
  // `thread_name` is the name that the loop's threads show in a debugger; at most 15 characters of it count.
  explicit CMessageLoopDyThreadPool(const char* thread_name = "tansy-task");
  virtual ~CMessageLoopDyThreadPool();  // does what Stop(false) does

  // Starts `min_threads` threads, which stay. More are added up to `max_threads` while tasks wait, and leave after
  // `idle_seconds` without work. Returns false when the numbers make no sense (min < 1, max < min, idle < 0), when the
  // loop runs already, or when not a single thread can be started. A loop that got fewer threads than it asked for
  // runs, and asks again as tasks come.
  bool Start(int min_threads, int max_threads, int idle_seconds);

  // Takes ownership of the task, whatever the result. Returns false when the loop was stopped or memory has run out
  // (the task is then deleted without having been run), or when `task` is null.
  bool PostTask(CTask* task) noexcept;

  // Counts waiting and running tasks.
  std::size_t GetWorkTaskCount() const;

  // Waits for the running tasks. When `run_waiting` is true, it runs the tasks still queued first; otherwise it deletes
  // them.
  void Stop(bool run_waiting);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace TansyBase

#endif  // TANSY_BASE_MESSAGE_LOOP_H
