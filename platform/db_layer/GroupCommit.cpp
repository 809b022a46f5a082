#include "db_layer/GroupCommit.h"

#include <chrono>
#include <cstdint>
#include <exception>
#include <thread>
#include <utility>

#include "TansyBase/MessageLoop.h"
#include "db_layer/WriteCounts.h"

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
  leader_waits_ = true;
  Lead(std::move(lock));
}

void CGroupCommit::Post(std::unique_ptr<PostedWrite>& write) {
  write->write.statements = &write->statements;
  std::unique_lock lock(mutex_);
  posted_.push_back(std::move(write));
  if (!std::exchange(has_leader_, true)) {
    leader_waits_ = false;
    // Other threads have requests in hand, and what they post meanwhile shares this transaction: with 64 clients on two
    // processors a write took 35 us of processor time instead of 49.
    lock.unlock();
    std::this_thread::yield();
    lock.lock();
    Lead(std::move(lock));
  } else if (leader_waits_ && successor_ == nullptr) {
    LeadNext(std::move(lock));
  }
}

// Waits for the end of the batch that is under way.
void CGroupCommit::LeadNext(std::unique_lock<std::mutex> lock) noexcept {
  Waiter self;
  successor_ = &self;
  {
    lock.unlock();
    const TansyBase::CBlockingScope blocking;
    lock.lock();
    self.wake.wait(lock, [&self] { return self.leads; });
  }
  Lead(std::move(lock));
}

// No exception may leave here, because the others would wait for ever for a leader that is gone.
void CGroupCommit::Lead(std::unique_lock<std::mutex> lock) noexcept {
  do {
    std::vector<Waiter*> waiters;
    PostedWrites posted;
    waiters.swap(waiting_);
    posted.swap(posted_);
    lock.unlock();
    Execute(waiters, posted);
    lock.lock();
    for (Waiter* waiter : waiters) {
      // This happens under the lock: once a waiter sees `done`, it returns and its stack is gone.
      waiter->done = true;
      waiter->wake.notify_one();
    }
    ChooseLeader();
    lock.unlock();
    // Without a waiter, whoever writes next may lead while this thread reports.
    for (const std::unique_ptr<PostedWrite>& write : posted) {
      Report(*write);
    }
    posted.clear();
    lock.lock();
  } while (!posted_.empty() && !std::exchange(has_leader_, true));
}

// The leader's own caller has waited long enough, so somebody who waits leads the next batch.
void CGroupCommit::ChooseLeader() noexcept {
  Waiter* const next = successor_ != nullptr ? successor_ : waiting_.empty() ? nullptr : waiting_.front();
  has_leader_ = next != nullptr;
  leader_waits_ = has_leader_ && next != successor_;
  successor_ = nullptr;
  if (has_leader_) {
    next->leads = true;
    next->wake.notify_one();
  }
}

void CGroupCommit::Execute(const std::vector<Waiter*>& waiters, const PostedWrites& posted) noexcept {
  try {
    std::vector<SqlWrite*> batch;
    batch.reserve(waiters.size() + posted.size());
    for (const std::unique_ptr<PostedWrite>& write : posted) {
      batch.push_back(&write->write);
    }
    for (const Waiter* waiter : waiters) {
      batch.push_back(waiter->write);
    }
    const auto begin = std::chrono::steady_clock::now();
    executor_(batch);
    const auto took = std::chrono::steady_clock::now() - begin;
    details::CountGroup(batch.size(),
                        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(took).count()));
  } catch (const std::exception&) {
    for (const std::unique_ptr<PostedWrite>& write : posted) {
      write->write.FailForMemory();
    }
    for (const Waiter* waiter : waiters) {
      waiter->write->FailForMemory();
    }
  }
}

void CGroupCommit::Report(PostedWrite& posted) noexcept {
  posted.done({posted.write.succeeded, posted.write.error.code, posted.write.error.text});
}

std::size_t CGroupCommit::CountWaiting() const {
  const std::lock_guard lock(mutex_);
  return waiting_.size() + posted_.size();
}

}  // namespace db_layer
