// Keeps the threads of a message loop busy, so that a test sees what is queued behind them.
#ifndef TANSY_TESTS_FAKES_HELD_LOOP_H
#define TANSY_TESTS_FAKES_HELD_LOOP_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <utility>

#include "TansyBase/MessageLoop.h"

namespace Tansy::Tests {

// A task that runs a function.
class CFunctionTask : public TansyBase::CTask {
 public:
  explicit CFunctionTask(std::function<void()> function) : function_(std::move(function)) {}
  void Exec() override { function_(); }

 private:
  std::function<void()> function_;
};

inline bool Post(TansyBase::CMessageLoopDyThreadPool& loop, std::function<void()> function) {
  return loop.PostTask(new CFunctionTask(std::move(function)));
}

// Waits until a task that is posted now has been run; with a loop of one thread everything posted before has then run
// too. False when that takes longer than `limit` or the loop is stopped.
inline bool WaitForTurn(TansyBase::CMessageLoopDyThreadPool& loop,
                        std::chrono::milliseconds limit = std::chrono::seconds(60)) {
  // The promise is shared with the task, which may still be running its last lines when the wait is over.
  const auto ran = std::make_shared<std::promise<void>>();
  std::future<void> turn = ran->get_future();
  return Post(loop, [ran] { ran->set_value(); }) && turn.wait_for(limit) == std::future_status::ready;
}

// Holds `threads` threads of a running loop from its construction, which waits until they are held, to Release or its
// end. Each held thread counts as one task of the loop.
class CHeldLoop {
 public:
  CHeldLoop(TansyBase::CMessageLoopDyThreadPool& loop, int threads) : state_(std::make_shared<State>()) {
    for (int i = 0; i < threads; ++i) {
      Post(loop, [state = state_] { state->Hold(); });
    }
    std::unique_lock lock(state_->mutex);
    state_->changed.wait(lock, [&] { return state_->held == threads; });
  }
  ~CHeldLoop() { Release(); }
  CHeldLoop(const CHeldLoop&) = delete;
  CHeldLoop& operator=(const CHeldLoop&) = delete;

  // Lets the threads go on; a second call does no harm.
  void Release() {
    const std::lock_guard lock(state_->mutex);
    state_->released = true;
    state_->changed.notify_all();
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    int held = 0;
    bool released = false;

    void Hold() {
      std::unique_lock lock(mutex);
      ++held;
      changed.notify_all();
      changed.wait(lock, [this] { return released; });
    }
  };

  std::shared_ptr<State> state_;  // shared with the held threads
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_HELD_LOOP_H
