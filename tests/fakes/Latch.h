// Lets threads wait until as many arrivals as it was made with have been counted.
//
// It takes the place of the latch of the standard library. The one of MinGW's compiler looks at its count before it
// takes the lock to sleep, so an arrival in between wakes nobody, and the wait never ends.
#ifndef TANSY_TESTS_FAKES_LATCH_H
#define TANSY_TESTS_FAKES_LATCH_H

#include <condition_variable>
#include <mutex>

namespace Tansy::Tests {

// Threads: any thread may call any member. Whoever has waited may destroy it.
class CLatch {
 public:
  explicit CLatch(int arrivals) : left_(arrivals) {}
  CLatch(const CLatch&) = delete;
  CLatch& operator=(const CLatch&) = delete;

  // The threads are woken under the lock, because they may destroy the latch as soon as they have it.
  void CountDown() {
    const std::lock_guard lock(mutex_);
    --left_;
    all_arrived_.notify_all();
  }

  void Wait() {
    std::unique_lock lock(mutex_);
    all_arrived_.wait(lock, [this] { return left_ <= 0; });
  }

  void ArriveAndWait() {
    CountDown();
    Wait();
  }

 private:
  std::mutex mutex_;
  std::condition_variable all_arrived_;
  int left_;  // guarded by mutex_
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_LATCH_H
