#ifndef TANSY_HOST_WRITE_GATE_H
#define TANSY_HOST_WRITE_GATE_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

#include "TansyBase/MessageLoop.h"

namespace Tansy::Host {

// Holds up operations for a moment, so that somebody finds none under way. Threads: any; one at a time may hold.
class CWriteGate {
 public:
  // One operation. Its maker waits while another thread holds the gate.
  class CPass {
   public:
    explicit CPass(CWriteGate& gate) : gate_(gate) { gate_.Enter(); }
    ~CPass() { gate_.Leave(); }
    CPass(const CPass&) = delete;
    CPass& operator=(const CPass&) = delete;

   private:
    CWriteGate& gate_;
  };

  // Returns true when no operation is under way; the calling thread alone may begin some until Release. Returns false,
  // and holds nothing, when some have not ended within this time.
  bool Hold(std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    holder_ = std::this_thread::get_id();
    if (changed_.wait_for(lock, wait, [this] { return inside_ == 0; })) {
      return true;
    }
    holder_ = {};
    changed_.notify_all();
    return false;
  }

  void Release() {
    const std::lock_guard lock(mutex_);
    holder_ = {};
    changed_.notify_all();
  }

 private:
  bool IsOpen() const { return holder_ == std::thread::id() || holder_ == std::this_thread::get_id(); }

  void Enter() {
    std::unique_lock lock(mutex_);
    if (!IsOpen()) {
      const TansyBase::CBlockingScope blocking;
      changed_.wait(lock, [this] { return IsOpen(); });
    }
    ++inside_;
  }

  void Leave() {
    const std::lock_guard lock(mutex_);
    --inside_;
    if (inside_ == 0 && holder_ != std::thread::id()) {
      changed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t inside_ = 0;
  std::thread::id holder_;  // the default value: nobody
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_WRITE_GATE_H
