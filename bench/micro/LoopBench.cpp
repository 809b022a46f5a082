// Handing work to the threads that serve requests.
#include <benchmark/benchmark.h>

#include <semaphore>

#include "TansyBase/MessageLoop.h"

namespace {

class CSignalTask : public TansyBase::CTask {
 public:
  explicit CSignalTask(std::counting_semaphore<>& done) : done_(done) {}
  void Exec() override { done_.release(); }

 private:
  std::counting_semaphore<>& done_;
};

// Posts one task and waits until it has run: two hand-overs, and a sleeping thread is woken for each.
void PostAndWait(benchmark::State& state) {
  TansyBase::CMessageLoopDyThreadPool loop;
  loop.Start(4, 4, 5);
  std::counting_semaphore<> done(0);
  for (auto _ : state) {
    loop.PostTask(new CSignalTask(done));
    done.acquire();
  }
  loop.Stop(true);
}
BENCHMARK(PostAndWait)->UseRealTime();

// Posts a hundred tasks and waits for all of them; the time is that of one.
void PostHundred(benchmark::State& state) {
  constexpr int kTasks = 100;
  TansyBase::CMessageLoopDyThreadPool loop;
  loop.Start(4, 4, 5);
  std::counting_semaphore<> done(0);
  while (state.KeepRunningBatch(kTasks)) {
    for (int i = 0; i < kTasks; ++i) {
      loop.PostTask(new CSignalTask(done));
    }
    for (int i = 0; i < kTasks; ++i) {
      done.acquire();
    }
  }
  loop.Stop(true);
}
BENCHMARK(PostHundred)->UseRealTime();

}  // namespace
