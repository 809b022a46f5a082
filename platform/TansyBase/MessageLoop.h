#ifndef TANSY_BASE_MESSAGE_LOOP_H
#define TANSY_BASE_MESSAGE_LOOP_H

#include <cstddef>
#include <memory>

#include "TansyBase/Noncopyable.h"

namespace TansyBase {

// One piece of work for a message loop. The poster allocates it with new; from PostTask on the loop owns it and deletes
// it after Exec, or without Exec when it is dropped. An exception that leaves Exec is caught by the loop and logged.
class CTask {
 public:
  virtual ~CTask() = default;
  virtual void Exec() = 0;
};

// A queue of tasks run by a pool of threads that grows and shrinks between two bounds.
//
// Order: tasks start in the order in which they were posted. Tasks posted before the first Start wait and run once it
// is called; tasks posted after Stop are deleted at once without being run. Start after Stop starts over. Threads:
// every member may be called from any thread; Stop called by a task of the same loop returns without waiting for that
// task.
class CMessageLoopDyThreadPool : private CNoncopyable {
 public:
  // The name that the loop's threads show in a debugger; at most 15 characters of it count.
  explicit CMessageLoopDyThreadPool(const char* thread_name = "tansy-task");
  virtual ~CMessageLoopDyThreadPool();  // as Stop(false)

  // `min_threads` stay for good; more are added up to `max_threads` while tasks wait, and leave after `idle_seconds`
  // without work. False when the numbers make no sense (min < 1, max < min, idle < 0), the loop runs already, or not
  // one thread is to be had. A loop that got fewer threads than it asked for runs, and asks again as tasks come.
  bool Start(int min_threads, int max_threads, int idle_seconds);

  // Takes ownership, whatever the result. False when the loop was stopped or memory has run out (the task is deleted
  // without having been run), or when `task` is null.
  bool PostTask(CTask* task) noexcept;

  // Tasks waiting plus tasks running.
  std::size_t GetWorkTaskCount() const;

  // Waits for the running tasks. `run_waiting` true runs those still queued first, false deletes them.
  void Stop(bool run_waiting);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace TansyBase

#endif  // TANSY_BASE_MESSAGE_LOOP_H
