#include "db_layer/GroupCommit.h"

#include <utility>

namespace db_layer {

CGroupCommit::CGroupCommit(Executor executor) : executor_(std::move(executor)) {}

void CGroupCommit::Run(SqlWrite& write) {
  Waiter self;
  self.write = &write;
  std::unique_lock lock(mutex_);
  waiting_.push_back(&self);
  if (has_leader_) {
    self.wake.wait(lock, [&self] { return self.done || self.leads; });
    if (self.done) {
      return;
    }
  }
  has_leader_ = true;

  std::vector<Waiter*> group;
  group.swap(waiting_);
  lock.unlock();
  std::vector<SqlWrite*> batch;
  batch.reserve(group.size());
  for (const Waiter* waiter : group) {
    batch.push_back(waiter->write);
  }
  executor_(batch);

  lock.lock();
  for (Waiter* waiter : group) {
    // Under the lock: a waiter that sees `done` ends its life on its own stack.
    waiter->done = true;
    waiter->wake.notify_one();
  }
  if (waiting_.empty()) {
    has_leader_ = false;
    return;
  }
  // The leader's own caller has waited long enough; the next batch is the first waiter's.
  waiting_.front()->leads = true;
  waiting_.front()->wake.notify_one();
}

std::size_t CGroupCommit::CountWaiting() const {
  const std::lock_guard lock(mutex_);
  return waiting_.size();
}

}  // namespace db_layer
