#ifndef TANSY_HOST_MOVE_HOLD_H
#define TANSY_HOST_MOVE_HOLD_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "MovableStore.h"
#include "WriteGate.h"

namespace Tansy::Host {

// Holds writes to both halves: to the store, and to the pool of the module "platform". They go on when this object
// ends, and at the latest after a time that was given, whatever the thread that made it is waiting for.
//
// Threads: the members are for the thread that made it; IsOver is for any.
class CHeldWrites {
 public:
  using Milliseconds = std::chrono::milliseconds;

  // Waits at most `patience` for what is under way in each half. `longest` counts from here.
  CHeldWrites(CMovableStore& store, Milliseconds patience, Milliseconds longest);
  ~CHeldWrites();
  CHeldWrites(const CHeldWrites&) = delete;
  CHeldWrites& operator=(const CHeldWrites&) = delete;

  // Says whether writes were held at all.
  explicit operator bool() const { return was_held_; }
  // Says that they are not held any more.
  bool IsOver() const;
  // What is left of `longest`.
  Milliseconds Left() const;
  // Writes are held from here to LetGo, however long that is. Returns false when they are not held any more.
  bool Keep();
  void LetGo();
  // For how long writes have waited.
  Milliseconds Lasted() const;

 private:
  using Clock = std::chrono::steady_clock;

  bool Hold(Milliseconds patience);
  void Release();
  void Watch();

  CMovableStore& store_;
  const Clock::time_point begin_;
  const Clock::time_point end_;
  bool was_held_ = false;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool is_held_ = false;
  bool is_kept_ = false;
  bool is_done_ = false;
  Clock::time_point released_;
  std::thread watch_;
};

// Keeps housekeeping from what it does in one piece, as long as this lives.
class CHeldHousekeeping {
 public:
  // A null gate has nothing to hold.
  CHeldHousekeeping(CWriteGate* gate, std::chrono::milliseconds patience)
      : gate_(gate), is_held_(gate == nullptr || gate->Hold(patience)) {}
  ~CHeldHousekeeping() {
    if (gate_ != nullptr && is_held_) {
      gate_->Release();
    }
  }
  CHeldHousekeeping(const CHeldHousekeeping&) = delete;
  CHeldHousekeeping& operator=(const CHeldHousekeeping&) = delete;

  explicit operator bool() const { return is_held_; }

 private:
  CWriteGate* const gate_;
  const bool is_held_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_HOLD_H
