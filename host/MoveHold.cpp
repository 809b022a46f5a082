#include "MoveHold.h"

#include <algorithm>

#include "db_layer/DbLayer.h"

namespace Tansy::Host {

CHeldWrites::CHeldWrites(CMovableStore& store, Milliseconds patience, Milliseconds longest)
    : store_(store), begin_(Clock::now()), end_(begin_ + longest), released_(begin_) {
  if (!Hold(patience)) {
    released_ = Clock::now();
    return;
  }
  was_held_ = is_held_ = true;
  try {
    watch_ = std::thread([this] { Watch(); });
  } catch (...) {
    Release();
    throw;
  }
}

CHeldWrites::~CHeldWrites() {
  {
    const std::lock_guard lock(mutex_);
    is_done_ = true;
    Release();
    changed_.notify_all();
  }
  if (watch_.joinable()) {
    watch_.join();
  }
}

bool CHeldWrites::Hold(Milliseconds patience) {
  if (!store_.HoldWrites(patience)) {
    return false;
  }
  if (db_layer::Module_Hold("platform", static_cast<int>(patience.count()))) {
    return true;
  }
  store_.ReleaseWrites();
  return false;
}

void CHeldWrites::Release() {
  if (is_held_) {
    is_held_ = false;
    released_ = Clock::now();
    db_layer::Module_Release("platform");
    store_.ReleaseWrites();
  }
}

void CHeldWrites::Watch() {
  std::unique_lock lock(mutex_);
  changed_.wait_until(lock, end_, [this] { return is_done_; });
  changed_.wait(lock, [this] { return is_done_ || !is_kept_; });
  Release();
}

bool CHeldWrites::IsOver() const {
  const std::lock_guard lock(mutex_);
  return !is_held_;
}

CHeldWrites::Milliseconds CHeldWrites::Left() const {
  return std::max(Milliseconds(0), std::chrono::duration_cast<Milliseconds>(end_ - Clock::now()));
}

bool CHeldWrites::Keep() {
  const std::lock_guard lock(mutex_);
  is_kept_ = is_held_;
  return is_kept_;
}

void CHeldWrites::LetGo() {
  const std::lock_guard lock(mutex_);
  is_kept_ = false;
  changed_.notify_all();
}

CHeldWrites::Milliseconds CHeldWrites::Lasted() const {
  const std::lock_guard lock(mutex_);
  return std::chrono::duration_cast<Milliseconds>((is_held_ ? Clock::now() : released_) - begin_);
}

}  // namespace Tansy::Host
