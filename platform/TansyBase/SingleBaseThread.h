#ifndef TANSY_BASE_SINGLE_BASE_THREAD_H
#define TANSY_BASE_SINGLE_BASE_THREAD_H

#include <cstdint>
#include <memory>

#include "TansyBase/Noncopyable.h"

namespace TansyBase {

// A thread of its own that calls OnTimer at once and then once per period.
// Threads: every member may be called from any thread; OnTimer runs on the own thread only. A derived class calls Stop
// in its destructor, before its members are destroyed. An exception that leaves OnTimer is logged, and the next call
// comes as usual.
class CSingleBaseThread : private CNoncopyable {
 public:
  // `thread_name` is the name that the thread shows in a debugger; at most 15 characters of it count.
  explicit CSingleBaseThread(const char* thread_name = "tansy-timer");
  virtual ~CSingleBaseThread();

  // Starts the thread. Returns false when it runs already, when the period is 0, when no thread can be started, or when
  // OnTimer itself calls. The period counts from the end of one call to the beginning of the next.
  bool Start(std::uint32_t period_ms);
  // Wakes the thread, waits for a running OnTimer and ends the thread. Stopping a stopped thread does nothing. When
  // OnTimer itself calls Stop, this call of OnTimer is the last one, and Stop returns at once.
  void Stop();
  // Makes the next call come now instead of at the end of the period.
  void Wake();

 protected:
  virtual void OnTimer() = 0;
  // OnTimer asks this while it has much to do: the answer is true once Stop was called, which waits for the end of
  // OnTimer. It is always false when another thread than the own one calls OnTimer.
  bool IsStopping() const;

 private:
  void Run(std::uint32_t period_ms);

  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace TansyBase

#endif  // TANSY_BASE_SINGLE_BASE_THREAD_H
