#include "db_layer/GroupCommit.h"

#include <exception>
#include <utility>

namespace db_layer {

void SqlWrite::FailForMemory() noexcept {
  succeeded = false;
  SetOutOfMemory(error);
  if (rows != nullptr) {
    rows->Clear();
  }
}

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
  Execute(group);
  lock.lock();
  for (Waiter* waiter : group) {
    // This happens under the lock: once a waiter sees `done`, it returns and its stack is gone.
    waiter->done = true;
    waiter->wake.notify_one();
  }
  if (waiting_.empty()) {
    has_leader_ = false;
    return;
  }
  // The leader's own caller has waited long enough, so the first waiter leads the next batch.
  waiting_.front()->leads = true;
  waiting_.front()->wake.notify_one();
}

// No exception may leave here, because the others would wait for ever for a leader that is gone.
void CGroupCommit::Execute(const std::vector<Waiter*>& group) noexcept {
  try {
    std::vector<SqlWrite*> batch;
    batch.reserve(group.size());
    for (const Waiter* waiter : group) {
      batch.push_back(waiter->write);
    }
    executor_(batch);
  } catch (const std::exception&) {
    for (const Waiter* waiter : group) {
      waiter->write->FailForMemory();
    }
  }
}

std::size_t CGroupCommit::CountWaiting() const {
  const std::lock_guard lock(mutex_);
  return waiting_.size();
}

}  // namespace db_layer
