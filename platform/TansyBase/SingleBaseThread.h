#ifndef TANSY_BASE_SINGLE_BASE_THREAD_H
#define TANSY_BASE_SINGLE_BASE_THREAD_H

#include <cstdint>
#include <memory>

#include "TansyBase/Noncopyable.h"

namespace TansyBase {

// A thread of its own that calls OnTimer at once and then once a period.
// Threads: Start and Stop may be called from any thread; OnTimer runs on the own thread only. A derived class calls
// Stop in its destructor, before its members go.
class CSingleBaseThread : private CNoncopyable {
 public:
  CSingleBaseThread();
  virtual ~CSingleBaseThread();

  // False when it runs already or the period is 0.
  bool Start(std::uint32_t period_ms);
  // Wakes the thread, waits for a running OnTimer and ends. Stopping a stopped thread does nothing.
  void Stop();
  // Makes the next call come now instead of at the end of the period.
  void Wake();

 protected:
  virtual void OnTimer() = 0;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace TansyBase

#endif  // TANSY_BASE_SINGLE_BASE_THREAD_H
