#ifndef TANSY_BASE_MESSAGE_LOOP_H
#define TANSY_BASE_MESSAGE_LOOP_H

#include <cstddef>
#include <memory>
#include <thread>

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
// Threads that wait: a task that waits for something slow says so with a CBlockingScope. Its thread then does not count
// towards `max_threads`, and a spare thread runs tasks in its place, for up to kMaxBlocked threads at a time. A thread
// that has waited goes on at once, because others may need what it holds; no further task starts until fewer than
// `max_threads` threads compute. Spare threads leave like others that were added.
//
// Order: tasks start in the order in which they were posted. Tasks posted before the first Start wait and run once it
// is called; tasks posted after Stop are deleted at once without being run. Start after Stop begins again. Threads:
// every member may be called from any thread. When a task of the loop itself calls Stop, the call returns without
// waiting for that task.
class CMessageLoopDyThreadPool : private CNoncopyable {
 public:
  // At most this many threads are replaced while they wait; further ones keep their place.
  static constexpr std::size_t kMaxBlocked = 64;

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

  // Runs a task on the calling thread, in the place of a thread of the loop that has nothing to do. For everything else
  // the task counts as one of the loop's own, and Stop waits for it. Returns false, and has not touched the task, when
  // the loop does not run, when other tasks wait, and when as many as may compute do so already.
  bool RunHere(CTask& task) noexcept;

  // Counts waiting and running tasks; a task in a CBlockingScope is a running one.
  std::size_t GetWorkTaskCount() const;

  struct Load {
    std::size_t waiting = 0;    // tasks in the queue
    std::size_t computing = 0;  // tasks that run and are in no CBlockingScope
    std::size_t blocked = 0;    // tasks in one that took effect
  };
  Load GetLoad() const;

  // Waits for the running tasks. When `run_waiting` is true, it runs the tasks still queued first; otherwise it deletes
  // them.
  void Stop(bool run_waiting);

 private:
  friend class CBlockingScope;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Says that the calling thread waits for something slow (a disk, a database, a lock that somebody holds meanwhile) and
// does not compute, for as long as the object lives. A loop's thread gives up its place to a spare thread meanwhile; on
// any other thread, inside another scope, and when no spare thread can be had, the object has no effect. Nothing is
// thrown. The object must end on the thread that made it.
class CBlockingScope : private CNoncopyable {
 public:
  CBlockingScope() noexcept;
  ~CBlockingScope();

 private:
  bool gave_up_place_ = false;
};

// Locks a mutex that may be held for as long as a disk or a database takes, and waits for it in a CBlockingScope. Most
// holders are quicker than a spare thread would be, so they get a moment first.
template <typename Lock>
void LockWhileBlocking(Lock& lock) {
  constexpr int kTries = 16;
  for (int i = 0; i < kTries; ++i) {
    if (lock.try_lock()) {
      return;
    }
    std::this_thread::yield();
  }
  const CBlockingScope blocking;
  lock.lock();
}

}  // namespace TansyBase

#endif  // TANSY_BASE_MESSAGE_LOOP_H
