#include "db_layer/ConnectionPool.h"

#include <algorithm>
#include <utility>

namespace db_layer {

namespace details {
namespace {

// Drivers pass on what a server said, and servers quote what they were sent.
std::string CleanError(std::string text, const std::string& password) {
  for (std::size_t at = 0; !password.empty() && (at = text.find(password, at)) != std::string::npos; at += 3) {
    text.replace(at, password.size(), "***");
  }
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }, ' ');
  return text;
}

}  // namespace
}  // namespace details

CConnectionPool::CConnectionPool(DBParam param, std::shared_ptr<IDriver> driver)
    : param_(std::move(param)), driver_(std::move(driver)) {}

bool CConnectionPool::Fill(std::string& error) {
  std::unique_lock lock(mutex_);
  while (!closed_ && open_ < CountWanted()) {
    Lease lease = OpenOne(lock, error);
    if (!lease.connection) {
      return false;
    }
    lock.unlock();
    Return(std::move(lease));
    lock.lock();
  }
  return !closed_;
}

CConnectionPool::Lease CConnectionPool::Take(std::chrono::milliseconds wait, std::string& error) {
  std::unique_lock lock(mutex_);
  const std::uint64_t ticket = next_ticket_++;
  queue_.push_back(ticket);
  const bool has_turn = changed_.wait_for(lock, wait, [this, ticket] {
    return closed_ || (queue_.front() == ticket && (!idle_.empty() || open_ < CountAllowed()));
  });
  std::erase(queue_, ticket);
  // The next in line may have its turn as well, or has it because this one gave up.
  changed_.notify_all();
  if (closed_ || !has_turn) {
    error = closed_ ? "the module is not registered any more" : "all connections are in use";
    return {};
  }
  if (auto connection = TakeIdle()) {
    return {std::move(connection), generation_};
  }
  return OpenOne(lock, error);
}

// An idle connection that still works. Those that do not make room.
std::unique_ptr<CConnect> CConnectionPool::TakeIdle() {
  while (!idle_.empty()) {
    auto connection = std::move(idle_.back().connection);
    idle_.pop_back();
    if (connection->IsHealthy()) {
      return connection;
    }
    --open_;
  }
  return nullptr;
}

// Opens without the lock: a database that is slow to answer must not hold up those who give connections back.
CConnectionPool::Lease CConnectionPool::OpenOne(std::unique_lock<std::mutex>& lock, std::string& error) {
  ++open_;
  const DBParam param = param_;
  const auto driver = driver_;
  Lease lease;
  lease.generation = generation_;
  lock.unlock();
  lease.connection = driver->Open(param, error);
  lock.lock();
  if (!lease.connection) {
    error = details::CleanError(std::move(error), param.password);
    --open_;
    changed_.notify_all();
  }
  return lease;
}

void CConnectionPool::Return(Lease lease) {
  const bool is_healthy = lease.connection->IsHealthy();
  std::deque<Idle> unused;
  {
    const std::lock_guard lock(mutex_);
    if (is_healthy && !closed_ && lease.generation == generation_) {
      idle_.push_back({std::move(lease.connection), Clock::now()});
      unused = TakeUnused();
      changed_.notify_all();
    }
  }
  const std::size_t closing = unused.size() + (lease.connection ? 1 : 0);
  // Closed before it is counted as gone: who waits for the last one finds the database closed.
  lease.connection.reset();
  unused.clear();
  if (closing > 0) {
    const std::lock_guard lock(mutex_);
    open_ -= closing;
    changed_.notify_all();
  }
}

std::deque<CConnectionPool::Idle> CConnectionPool::TakeUnused() {
  std::deque<Idle> unused;
  const auto limit = Clock::now() - kKeepUnused;
  while (open_ > unused.size() + CountWanted() && !idle_.empty() && idle_.front().since < limit) {
    unused.push_back(std::move(idle_.front()));
    idle_.pop_front();
  }
  return unused;
}

std::size_t CConnectionPool::CountWaiting() const {
  const std::lock_guard lock(mutex_);
  return queue_.size();
}

void CConnectionPool::Reset(const DBParam& param, std::shared_ptr<IDriver> driver) {
  std::deque<Idle> old;
  {
    const std::lock_guard lock(mutex_);
    param_ = param;
    driver_ = std::move(driver);
    ++generation_;
    old.swap(idle_);
    open_ -= old.size();
    changed_.notify_all();
  }
}

void CConnectionPool::Close(std::chrono::milliseconds wait) {
  std::deque<Idle> idle;
  std::unique_lock lock(mutex_);
  closed_ = true;
  idle.swap(idle_);
  open_ -= idle.size();
  changed_.notify_all();
  lock.unlock();
  idle.clear();
  lock.lock();
  changed_.wait_for(lock, wait, [this] { return open_ == 0; });
}

std::size_t CConnectionPool::CountAllowed() const {
  return static_cast<std::size_t>(std::max(1, param_.max_connections));
}

std::size_t CConnectionPool::CountWanted() const {
  return std::min(CountAllowed(), static_cast<std::size_t>(std::max(1, param_.min_connections)));
}

}  // namespace db_layer
