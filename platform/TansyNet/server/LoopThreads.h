// The threads of one event loop: one leads and runs the loop, the others follow.
#ifndef TANSY_NET_SERVER_LOOP_THREADS_H
#define TANSY_NET_SERVER_LOOP_THREADS_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace TansyNet {

// Most callbacks of a loop are done in microseconds, and handing them to another thread would cost as much as they do.
// A callback that may take longer, because it waits for a disk perhaps, therefore runs on the leader's own thread, but
// as a loan: when the leader has not come back after kPatienceMs, a follower takes the lead and serves all others; the
// old leader follows once its callback returns. At every moment at most one thread runs the loop.
//
// A follower looks every few milliseconds while loans are made, and sleeps while there are none.
class CLoopThreads {
 public:
  static constexpr std::int64_t kPatienceMs = 10;
  // After the lead was lost to a slow callback, no loan is made for a while. The pause doubles as long as there are
  // only few quick callbacks between two slow ones, because the storage is slow then; a thread that merely got no
  // processor for some time costs the shortest pause.
  static constexpr std::int64_t kShortestPauseMs = 50;
  static constexpr std::int64_t kLongestPauseMs = 2000;
  // Two callbacks may be slow at a time; while they are, the last thread makes no loans.
  static constexpr std::size_t kThreads = 3;

  // Each thread calls `enter` once. `run_one` waits for one step of the loop and takes it, on the leader's thread; it
  // returns false when the loop has ended. Neither throws.
  CLoopThreads(std::function<void()> enter, std::function<bool()> run_one);
  ~CLoopThreads();
  CLoopThreads(const CLoopThreads&) = delete;
  CLoopThreads& operator=(const CLoopThreads&) = delete;

  // Throws when not a single thread can be started. With one thread, no loans are made.
  void Start();
  // Waits until the loop has ended and all threads have left it.
  void Join();

  // Says whether the calling thread leads, and so whether it may touch what belongs to the loop.
  bool IsLeader() const { return led_by_this_thread == this; }

  // Says whether the calling thread runs a callback on loan.
  static bool IsThreadLent() { return is_thread_lent; }

  // A loan from here to the object's end. Where no loan can be made, the object does nothing, and the callback must be
  // quick. The leader alone makes loans, one at a time.
  class CLoan {
   public:
    explicit CLoan(CLoopThreads& threads);
    ~CLoan();
    CLoan(const CLoan&) = delete;
    CLoan& operator=(const CLoan&) = delete;

   private:
    CLoopThreads& threads_;
    std::uint64_t loan_;
  };

 private:
  using Lock = std::unique_lock<std::mutex>;

  std::uint64_t BeginLoan();
  void EndLoan(std::uint64_t loan);
  void Serve();
  bool Lead();
  bool Follow(Lock& lock);
  bool TakeLead(std::int64_t now);

  static thread_local const CLoopThreads* led_by_this_thread;
  static thread_local bool is_thread_lent;

  const std::function<void()> enter_;
  const std::function<bool()> run_one_;

  // The loan under way; 0 when there is none. The upper bits are the time at which it began in milliseconds, the lower
  // ones a count, so that no two are equal.
  std::atomic<std::uint64_t> loan_{0};
  std::atomic<std::uint64_t> loans_made_{0};
  std::atomic<std::int64_t> no_loan_before_{0};
  std::atomic<bool> is_asleep_{false};  // the follower on watch sleeps until the next loan
  std::atomic<bool> has_watch_{false};  // a follower is on watch

  std::mutex mutex_;
  std::condition_variable changed_;
  // Everything below is guarded by mutex_.
  bool has_leader_ = false;
  bool has_ended_ = false;
  std::int64_t pause_ms_ = kShortestPauseMs;
  std::uint64_t loans_at_loss_ = 0;  // loans_made_ when the lead was lost last
  std::vector<std::thread> threads_;
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_LOOP_THREADS_H
