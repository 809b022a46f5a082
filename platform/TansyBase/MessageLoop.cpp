#include "TansyBase/MessageLoop.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <list>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "OSAL/Osal.h"
#include "logging/Logging.h"

namespace TansyBase {
namespace {

using TaskPointer = std::unique_ptr<CTask>;
// The queue is a list for two reasons. A new entry can be allocated before the lock is taken, and an empty list
// allocates nothing: stopping a loop must work without memory too.
using TaskQueue = std::list<TaskPointer>;

// A thread without work looks so many times for the next task before it sleeps, and lets others run in between. Waking
// it costs the poster more than that, and while a server is busy the next task is there at the first look.
constexpr int kLooksBeforeSleep = 8;

// True while the thread is in a CBlockingScope that took effect.
thread_local bool g_gave_up_place = false;

void RunTask(CTask& task) {
  try {
    task.Exec();
  } catch (const std::exception& exception) {
    TANSY_LOG(logging::kError, "platform.TansyBase", "[%s]task threw %s[%s(%d)]", exception.what());
  } catch (...) {
    TANSY_LOG(logging::kError, "platform.TansyBase", "[%s]task threw[%s(%d)]");
  }
}

// Makes a list of one element before it is spliced in. The list is empty when there is no memory for it.
template <typename Value>
std::list<Value> ListOfOne(Value value) noexcept {
  std::list<Value> list;
  try {
    list.push_back(std::move(value));
  } catch (const std::bad_alloc&) {
    TANSY_LOG(logging::kError, "platform.TansyBase", "[%s]out of memory[%s(%d)]");
  }
  return list;
}

void JoinAll(std::list<std::thread>& threads) {
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace

struct CMessageLoopDyThreadPool::Impl {
  enum class State { kNew, kRunning, kStopped };

  std::mutex lifecycle;  // Start and Stop hold it from beginning to end; threads of the loop never take it

  // Counts waiting and running tasks. It can be read without the lock, because servers ask at each request.
  std::atomic<std::size_t> work_count{0};

  mutable std::mutex mutex;
  std::condition_variable work;
  std::condition_variable visitor_left;  // after a stop only
  // Everything below is guarded by mutex.
  State state = State::kNew;
  std::chrono::seconds idle_time{0};
  std::size_t min_threads = 0;
  std::size_t max_threads = 0;
  TaskQueue queue;
  std::size_t computing = 0;            // threads that run a task and are in no CBlockingScope
  std::size_t visitors = 0;             // other threads that run a task here; they compute too
  std::size_t blocked = 0;              // threads in a CBlockingScope that gave up their place
  std::size_t lookers = 0;              // threads that look for work and do not sleep yet
  std::size_t sleepers = 0;             // threads that wait for work
  std::size_t signals = 0;              // sleepers that have been woken but have not taken their task yet
  std::list<std::thread> threads;       // threads that run
  std::list<std::thread> left_threads;  // threads that left because there was no work; they must be joined

  const std::string thread_name;

  explicit Impl(const char* name) : thread_name(name) {}

  static thread_local Impl* of_this_thread;

  bool AddThread() noexcept;
  bool WantsMoreThreads() const;
  bool MayStartTask() const { return !queue.empty() && computing < max_threads; }
  bool TakeSleeper();
  void RunNext(std::unique_lock<std::mutex>& lock);
  bool Enter() noexcept;
  void Leave() noexcept;
  bool GiveUpPlace() noexcept;
  void TakePlaceBack() noexcept;
  void RunThread(std::list<std::thread>::iterator self);
  bool LookForTask(std::unique_lock<std::mutex>& lock);
  bool Sleep(std::unique_lock<std::mutex>& lock);
  void Drop(TaskQueue& tasks);
  std::list<std::thread> TakeAllThreads();
};

thread_local CMessageLoopDyThreadPool::Impl* CMessageLoopDyThreadPool::Impl::of_this_thread = nullptr;

// Returns true when tasks wait for which no sleeping thread has been woken and no other thread will be free soon.
bool CMessageLoopDyThreadPool::Impl::WantsMoreThreads() const {
  return queue.size() > sleepers + lookers && threads.size() < max_threads + blocked;
}

// Returns true when a sleeping thread should be woken for a task; the caller must then do so. Threads that were woken
// will compute soon, so they count as if they did. A task that somebody who looks will find needs nobody else.
bool CMessageLoopDyThreadPool::Impl::TakeSleeper() {
  if (sleepers == signals || computing + signals >= max_threads || queue.size() <= lookers) {
    return false;
  }
  ++signals;
  return true;
}

// When no thread can be started now, the next task that waits tries again.
bool CMessageLoopDyThreadPool::Impl::AddThread() noexcept {
  std::list<std::thread> fresh = ListOfOne(std::thread());
  if (fresh.empty()) {
    return false;
  }
  try {
    // The new thread's first step is to take the mutex, so it finds its own entry finished and in its place.
    fresh.front() = std::thread(&Impl::RunThread, this, fresh.begin());
  } catch (const std::exception& error) {
    TANSY_LOG(logging::kError, "platform.TansyBase", "[%s]no thread to be had: %s[%s(%d)]", error.what());
    return false;
  }
  threads.splice(threads.end(), fresh);
  return true;
}

void CMessageLoopDyThreadPool::Impl::RunThread(std::list<std::thread>::iterator self) {
  of_this_thread = this;
  OSAL_SetThreadName(thread_name.c_str());
  std::unique_lock lock(mutex);
  for (;;) {
    if (MayStartTask()) {
      RunNext(lock);
    } else if (state == State::kStopped && (queue.empty() || computing > visitors)) {
      return;  // threads of the loop that compute run what is left
    } else if (!LookForTask(lock) && !Sleep(lock)) {
      left_threads.splice(left_threads.end(), threads, self);
      return;
    }
  }
}

void CMessageLoopDyThreadPool::Impl::RunNext(std::unique_lock<std::mutex>& lock) {
  TaskPointer task = std::move(queue.front());
  queue.pop_front();
  ++computing;
  lock.unlock();
  RunTask(*task);
  task.reset();
  work_count.fetch_sub(1, std::memory_order_relaxed);
  lock.lock();
  --computing;
}

// Takes the place of a thread that has nothing to do. Threads that were woken will have something to do soon.
bool CMessageLoopDyThreadPool::Impl::Enter() noexcept {
  const std::lock_guard lock(mutex);
  if (state != State::kRunning || !queue.empty() || computing + signals >= max_threads) {
    return false;
  }
  ++computing;
  ++visitors;
  work_count.fetch_add(1, std::memory_order_relaxed);
  return true;
}

// A task that was posted meanwhile may have found no place.
void CMessageLoopDyThreadPool::Impl::Leave() noexcept {
  work_count.fetch_sub(1, std::memory_order_relaxed);
  bool wake = false;
  {
    const std::lock_guard lock(mutex);
    --computing;
    --visitors;
    if (state == State::kRunning && MayStartTask()) {
      wake = TakeSleeper();
      if (!wake && WantsMoreThreads()) {
        AddThread();
      }
    }
    if (state == State::kStopped) {
      visitor_left.notify_all();
      work.notify_all();
    }
  }
  if (wake) {
    work.notify_one();
  }
}

// The place is given to a thread that runs the first waiting task. When none waits, the poster of the next one finds
// the place free. Without memory for a spare thread, the thread that is free next runs the task.
bool CMessageLoopDyThreadPool::Impl::GiveUpPlace() noexcept {
  bool wake = false;
  {
    const std::lock_guard lock(mutex);
    if (blocked == kMaxBlocked) {
      return false;
    }
    ++blocked;
    --computing;
    if (state == State::kRunning && MayStartTask()) {
      wake = TakeSleeper();
      if (!wake && WantsMoreThreads()) {
        AddThread();
      }
    }
  }
  if (wake) {
    work.notify_one();
  }
  return true;
}

void CMessageLoopDyThreadPool::Impl::TakePlaceBack() noexcept {
  const std::lock_guard lock(mutex);
  --blocked;
  ++computing;
}

// Returns true when there is something to do, or the loop was stopped meanwhile. The last look and the begin of a sleep
// are under one lock, so nothing happens in between that nobody notices.
bool CMessageLoopDyThreadPool::Impl::LookForTask(std::unique_lock<std::mutex>& lock) {
  const State before = state;
  bool has_found = false;
  ++lookers;
  for (int looks = 0; looks < kLooksBeforeSleep && !has_found && state == before; ++looks) {
    lock.unlock();
    std::this_thread::yield();
    lock.lock();
    has_found = MayStartTask();
  }
  --lookers;
  return has_found || state != before;
}

// Waits until it is woken, perhaps for nothing. Returns false when the thread has to leave because there has been no
// work for a while. Each return takes one signal back, also when another thread was quicker to the task, because a
// signal that stayed would keep the next poster from waking anybody.
bool CMessageLoopDyThreadPool::Impl::Sleep(std::unique_lock<std::mutex>& lock) {
  bool timed_out = false;
  ++sleepers;
  if (threads.size() > min_threads) {
    timed_out = work.wait_for(lock, idle_time) == std::cv_status::timeout;
  } else {
    work.wait(lock);
  }
  --sleepers;
  signals -= signals > 0 ? 1 : 0;
  return !timed_out || MayStartTask() || state == State::kStopped || threads.size() <= min_threads;
}

void CMessageLoopDyThreadPool::Impl::Drop(TaskQueue& tasks) {
  const std::size_t count = tasks.size();
  tasks.clear();
  work_count.fetch_sub(count, std::memory_order_relaxed);
}

std::list<std::thread> CMessageLoopDyThreadPool::Impl::TakeAllThreads() {
  std::list<std::thread> all;
  all.splice(all.end(), threads);
  all.splice(all.end(), left_threads);
  return all;
}

CMessageLoopDyThreadPool::CMessageLoopDyThreadPool(const char* thread_name)
    : impl_(std::make_unique<Impl>(thread_name)) {}

CMessageLoopDyThreadPool::~CMessageLoopDyThreadPool() {
  Stop(false);
  impl_->Drop(impl_->queue);  // tasks of a loop that was never started
}

bool CMessageLoopDyThreadPool::Start(int min_threads, int max_threads, int idle_seconds) {
  if (min_threads < 1 || max_threads < min_threads || idle_seconds < 0 || Impl::of_this_thread == impl_.get()) {
    return false;
  }
  const std::lock_guard lifecycle(impl_->lifecycle);
  std::unique_lock lock(impl_->mutex);
  if (impl_->state == Impl::State::kRunning) {
    return false;
  }
  if (impl_->state == Impl::State::kStopped) {  // one of its own tasks stopped the last run
    std::list<std::thread> ended = impl_->TakeAllThreads();
    lock.unlock();
    JoinAll(ended);
    lock.lock();
  }
  impl_->idle_time = std::chrono::seconds(idle_seconds);
  impl_->min_threads = static_cast<std::size_t>(min_threads);
  impl_->max_threads = static_cast<std::size_t>(max_threads);
  impl_->state = Impl::State::kRunning;
  while (impl_->threads.size() < impl_->min_threads && impl_->AddThread()) {
  }
  if (impl_->threads.empty()) {
    impl_->state = Impl::State::kNew;
    return false;
  }
  return true;
}

bool CMessageLoopDyThreadPool::PostTask(CTask* task) noexcept {
  if (task == nullptr) {
    return false;
  }
  // A task that is not queued is deleted after the lock is released, because its destructor may call this loop.
  TaskQueue posted = ListOfOne(TaskPointer(task));
  if (posted.empty()) {
    return false;
  }
  bool wake = false;
  std::list<std::thread> ended;
  {
    const std::lock_guard lock(impl_->mutex);
    if (impl_->state == Impl::State::kStopped) {
      return false;
    }
    impl_->queue.splice(impl_->queue.end(), posted);
    impl_->work_count.fetch_add(1, std::memory_order_relaxed);
    if (impl_->state == Impl::State::kRunning && impl_->MayStartTask()) {
      wake = impl_->TakeSleeper();
      if (impl_->WantsMoreThreads()) {
        impl_->AddThread();
        ended.swap(impl_->left_threads);  // threads of the last busy time
      }
    }
  }
  if (wake) {
    impl_->work.notify_one();
  }
  JoinAll(ended);
  return true;
}

bool CMessageLoopDyThreadPool::RunHere(CTask& task) noexcept {
  if (Impl::of_this_thread != nullptr || !impl_->Enter()) {
    return false;
  }
  // A task that waits gives its place up, and one that stops the loop does not wait for itself.
  Impl::of_this_thread = impl_.get();
  RunTask(task);
  Impl::of_this_thread = nullptr;
  impl_->Leave();
  return true;
}

std::size_t CMessageLoopDyThreadPool::GetWorkTaskCount() const {
  return impl_->work_count.load(std::memory_order_relaxed);
}

CMessageLoopDyThreadPool::Load CMessageLoopDyThreadPool::GetLoad() const {
  const std::lock_guard lock(impl_->mutex);
  return {impl_->queue.size(), impl_->computing, impl_->blocked};
}

void CMessageLoopDyThreadPool::Stop(bool run_waiting) {
  const bool own_task = Impl::of_this_thread == impl_.get();
  std::unique_lock lifecycle(impl_->lifecycle, std::defer_lock);
  if (!own_task) {
    lifecycle.lock();
  }
  TaskQueue dropped;
  std::unique_lock lock(impl_->mutex);
  if (impl_->state == Impl::State::kNew) {
    return;
  }
  impl_->state = Impl::State::kStopped;
  if (!run_waiting) {
    dropped.swap(impl_->queue);
  }
  lock.unlock();
  impl_->work.notify_all();
  impl_->Drop(dropped);
  if (own_task) {
    return;
  }
  lock.lock();
  impl_->visitor_left.wait(lock, [this] { return impl_->visitors == 0; });
  std::list<std::thread> ended = impl_->TakeAllThreads();
  lock.unlock();
  JoinAll(ended);
}

CBlockingScope::CBlockingScope() noexcept {
  if (auto* const loop = CMessageLoopDyThreadPool::Impl::of_this_thread; loop != nullptr && !g_gave_up_place) {
    gave_up_place_ = g_gave_up_place = loop->GiveUpPlace();
  }
}

CBlockingScope::~CBlockingScope() {
  if (gave_up_place_) {
    g_gave_up_place = false;
    CMessageLoopDyThreadPool::Impl::of_this_thread->TakePlaceBack();
  }
}

}  // namespace TansyBase
