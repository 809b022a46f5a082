#ifndef TANSY_HOST_MOVE_HOLD_H
#define TANSY_HOST_MOVE_HOLD_H

#include <chrono>

#include "MovableStore.h"

namespace Tansy::Host {

// Writes to both halves are held as long as this lives: to the store, and to the pool of the module "platform".
class CHeldWrites {
 public:
  // Waits at most this long for each half, for what is under way.
  CHeldWrites(CMovableStore& store, std::chrono::milliseconds patience);
  ~CHeldWrites();
  CHeldWrites(const CHeldWrites&) = delete;
  CHeldWrites& operator=(const CHeldWrites&) = delete;

  // Says whether they are held.
  explicit operator bool() const { return is_held_; }
  std::chrono::milliseconds Lasts() const;

 private:
  using Clock = std::chrono::steady_clock;

  CMovableStore& store_;
  const Clock::time_point begin_;
  bool is_held_ = false;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_HOLD_H
